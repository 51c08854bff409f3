// settings_known.h - the settings that exist, and what their values must look like.
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

/// @return nullopt when there is no such setting
std::optional<Kind> kindOf(std::string_view group, std::string_view key);

bool isKnownGroup(std::string_view group);

/// What is wrong with the value, to be read behind "[group] key "; empty when nothing is.
std::string_view faultIn(Kind kind, std::string_view value);

/// What the network setting says.
struct GatewayRule {
    enum class Source { Kernel, Fixed, Failure } source = Source::Kernel;
    bool exists = false;  ///< for Fixed
    int code = 0;         ///< for Failure, positive
};

/// Reads "auto", "up", "down" or "error:<code>". @return nullopt when it is none of them
std::optional<GatewayRule> gatewayRule(std::string_view value);

/// Reads environment variables of key stores' modules, "NAME=value" with blanks between, into names
/// and values. @return nullopt when one is of another form or name
std::optional<std::vector<std::pair<std::string, std::string>>> variables(std::string_view value);

}  // namespace settings
