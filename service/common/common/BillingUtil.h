// BillingUtil.h - facts about the device, its user and its language, and small text helpers.
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
};
