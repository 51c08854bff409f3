// BillingUtil.h - values of the device, its user and its language, and helpers for texts and encodings.
#pragma once

#include <string>

/// Thread: any for all functions. Every value is read when the function is called. No getter fails: a
/// value that the platform does not give is the empty text, except the language and the server type.
class BillingUtil {
public:
    BillingUtil() = delete;

    /// @return the menu language in the spelling of the billing server, such as "en" or "fr-US"; "ko" when the
    ///   platform does not tell
    static std::string GetLanguage();
    static std::string GetAToken();
    static std::string GetDUID();
    static std::string GetCountryCode();
    static std::string GetModelID();
    static std::string GetSSOGUID();
    static std::string GetUserToken();
    static std::string GetSSOUID();
    /// @return the server that the device's maker has chosen; 1 when the platform does not tell
    static int GetiVantorSerType();

    /// Removes trailing characters of the set from s itself.
    /// @return a copy of s without leading ones as well; s keeps its leading ones
    static std::string StringTrim(std::string& s, const std::string& chars);
    /// @return s with "<br>" for each CR LF; a CR or LF alone stays
    /// @throw std::logic_error when s is empty
    static std::string StringReplace0D0A(const std::string& s);
    /// Replaces every "<<A>>" in s itself by value; a "<<A>>" inside value is not replaced again.
    /// @return a copy of s
    static std::string StringReplaceAFlag(std::string& s, const std::string& value);
    /// Widens each byte to 16 bits, up to the NUL, which is not written. Does nothing when a pointer is null.
    /// @param pwszOut room for as many units as pszIn has bytes
    static void CharToWchar(unsigned short* pwszOut, const char* pszIn);

    /// Encodes bytes as one line of Base64. Writes nothing on failure.
    /// @param[out] ptOut gets no NUL
    /// @param[in,out] ptOutLength room in ptOut in bytes; on success the bytes written
    /// @return false when a pointer is null, the room too small or memory short
    static bool Base64Encode(unsigned char* ptIn, unsigned int uiInLength, unsigned char* ptOut,
                             unsigned int* ptOutLength);
    /// @return the Base64 text of HMAC-SHA256(key, msg); empty when OpenSSL has no memory
    static std::string getCheckValue(std::string key, std::string msg);

    /// @return the time in UTC as "20240131235959"
    /// @throw std::logic_error when the time cannot be read
    static std::string GetOrderTime();
    /// @return seconds since 1970
    static int GetTimestamp();
};
