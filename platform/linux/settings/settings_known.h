// settings_known.h - the known settings and the rules for their values.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace settings {

enum class Kind {
    Text,
    Number,      ///< a whole number of 32 bits
    Host,        ///< a bare host name, optionally with a port
    Gateway,     ///< see gatewayRule()
    Credential,  ///< five numbers of 32 bits
    KeyId,       ///< a whole number of 32 bits, not 0
    Path,        ///< absolute
    LoginId,     ///< a text that fits its field in the login record
    Variables,   ///< see variables()
};

/// @return nullopt for an unknown setting
std::optional<Kind> kindOf(std::string_view group, std::string_view key);

bool isKnownGroup(std::string_view group);

/// The fault of a value, as a continuation of "[group] key ".
/// @return empty for a good value
std::string_view faultIn(Kind kind, std::string_view value);

/// Meaning of [network] default_gateway.
struct GatewayRule {
    enum class Source { Kernel, Fixed, Failure } source = Source::Kernel;
    bool exists = false;  ///< for Fixed
    int code = 0;         ///< for Failure, positive
};

/// Reads "auto", "up", "down" or "error:<code>".
/// @return nullopt for any other text
std::optional<GatewayRule> gatewayRule(std::string_view value);

/// Reads environment variables of PKCS#11 modules: "NAME=value", separated by blanks.
/// @return names and values; nullopt when one has another form or a name that modules do not read
std::optional<std::vector<std::pair<std::string, std::string>>> variables(std::string_view value);

}  // namespace settings
