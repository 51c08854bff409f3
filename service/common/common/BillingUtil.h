// BillingUtil.h - facts about the device, its user and its language, and helpers for texts and
// encodings.
#pragma once

#include <string>

/// Thread: any for all of it. Every value is the one of the moment of the call. No getter fails: a
/// value that the platform does not give is the empty text, but for the language and the server
/// type.
class BillingUtil {
public:
    BillingUtil() = delete;

    /// @return the language of the menus as the billing server knows it, such as "en" or "fr-US";
    /// "ko" when the platform does not tell
    static std::string GetLanguage();
    static std::string GetAToken();
    static std::string GetDUID();
    static std::string GetCountryCode();
    static std::string GetModelID();
    static std::string GetSSOGUID();
    static std::string GetUserToken();
    static std::string GetSSOUID();
    /// @return the maker's server that the device belongs to; 1 when the platform does not tell
    static int GetiVantorSerType();

    /// Removes the characters on the right of s itself. @return a copy that has lost those on its
    /// left as well; s keeps them
    static std::string StringTrim(std::string& s, const std::string& chars);
    /// @return s with "<br>" for each CR LF; a CR or LF alone stays
    /// @throw std::logic_error when s is empty
    static std::string StringReplace0D0A(const std::string& s);
    /// Puts value in the place of every "<<A>>" in s itself; one that value brings along stays.
    /// @return a copy of s
    static std::string StringReplaceAFlag(std::string& s, const std::string& value);
    /// Widens each byte to 16 bits, up to the NUL, which is not written. Nothing happens when a
    /// pointer is null. @param pwszOut as many units as pszIn has bytes
    static void CharToWchar(unsigned short* pwszOut, const char* pszIn);

    /// Base64 in one line. @param[out] ptOut gets no NUL @param[in,out] ptOutLength the room in
    /// ptOut; on success the bytes written @return false when a pointer is null, the room too small
    /// or memory short; nothing is written then
    static bool Base64Encode(unsigned char* ptIn, unsigned int uiInLength, unsigned char* ptOut,
                             unsigned int* ptOutLength);
    /// @return the Base64 text of HMAC-SHA256(key, msg); empty when OpenSSL has no memory
    static std::string getCheckValue(std::string key, std::string msg);

    /// @return the time in UTC as "20240131235959" @throw std::logic_error when it cannot be read
    static std::string GetOrderTime();
    /// @return seconds since 1970
    static int GetTimestamp();
};
