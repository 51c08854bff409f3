// settings_known.cpp - the known settings and the rules for their values.
#include "settings_known.h"

#include "common/module_variables.h"
#include "common/value_rules.h"

#include <platform/account.h>

#include <glib.h>

#include <algorithm>
#include <sstream>

namespace settings {

namespace {

struct Known {
    std::string_view group;
    std::string_view key;
    Kind kind;
};

constexpr Known kKnown[] = {
    {"config", "db/comss/atoken", Kind::Text},
    {"config", "db/comss/hwduid", Kind::Text},
    {"config", "db/comss/countrycode", Kind::Text},
    {"config", "db/comss/modelid", Kind::Text},
    {"config", "memory/menu/network/set_time", Kind::Number},
    {"runtime", "language", Kind::Text},
    {"system", "vantor_server_type", Kind::Number},
    {"account", "guid", Kind::Text},
    {"account", "auth_token", Kind::Text},
    {"account", "login_id", Kind::LoginId},
    {"network", "default_gateway", Kind::Gateway},
    {"deployment", "production_host", Kind::Host},
    {"deployment", "sandbox_host", Kind::Host},
    {"deployment", "credential", Kind::Credential},
    {"deployment", "key_id", Kind::KeyId},
    {"deployment", "key_material", Kind::Path},
    {"keystore", "module", Kind::Path},
    {"keystore", "environment", Kind::Variables},
    {"keystore", "token", Kind::Text},
    {"keystore", "pin_file", Kind::Path},
    {"keystore", "store", Kind::Path},
    {"keystore", "seal_key", Kind::Path},
};

constexpr std::string_view kErrorPrefix = "error:";

/// Faults that only one kind of setting has.
std::string_view faultOfKind(Kind kind, std::string_view value)
{
    switch (kind) {
        case Kind::Text:
            return {};
        case Kind::Number:
            return valuerules::wholeNumber(value) ? "" : "is not a whole number of 32 bits";
        case Kind::Host:
            return value.empty() || valuerules::isBareHost(value)
                       ? ""
                       : "is not a bare host name (name or name:port, without scheme or path)";
        case Kind::Gateway:
            return gatewayRule(value) ? "" : "is none of auto, up, down and error:<code>";
        case Kind::Credential: {
            std::uint32_t words[5];
            return valuerules::numbers32(value, words, std::size(words))
                       ? ""
                       : "is not five numbers of 32 bits (decimal or 0x..., with blanks between)";
        }
        case Kind::KeyId:
            return valuerules::wholeNumber(value).value_or(0) != 0
                       ? ""
                       : "is not a whole number of 32 bits other than 0";
        case Kind::Path:
            return value.empty() || value.front() == '/' ? "" : "is not an absolute path";
        case Kind::LoginId:
            return value.size() < sizeof sso_login_info_s{}.user_id ? "" : "is over 255 bytes long";
        case Kind::Variables:
            return variables(value) ? ""
                                    : "is none of NAME=value, with blanks between, for variables "
                                      "that key stores' modules read";
    }
    return {};
}

}  // namespace

std::optional<Kind> kindOf(std::string_view group, std::string_view key)
{
    for (const Known& known : kKnown) {
        if (known.group == group && known.key == key)
            return known.kind;
    }
    return std::nullopt;
}

bool isKnownGroup(std::string_view group)
{
    for (const Known& known : kKnown) {
        if (known.group == group)
            return true;
    }
    return false;
}

std::string_view faultIn(Kind kind, std::string_view value)
{
    if (valuerules::holdsControl(value))
        return "holds a control character";
    if (!g_utf8_validate(value.data(), static_cast<gssize>(value.size()), nullptr))
        return "is not valid UTF-8";
    return faultOfKind(kind, value);
}

std::optional<GatewayRule> gatewayRule(std::string_view value)
{
    using Source = GatewayRule::Source;
    if (value == "auto")
        return GatewayRule{};
    if (value == "up" || value == "down")
        return GatewayRule{Source::Fixed, value == "up", 0};
    if (value.substr(0, kErrorPrefix.size()) != kErrorPrefix)
        return std::nullopt;
    const auto code = valuerules::wholeNumber(value.substr(kErrorPrefix.size()));
    if (!code || *code <= 0)
        return std::nullopt;
    return GatewayRule{Source::Failure, false, *code};
}

std::optional<std::vector<std::pair<std::string, std::string>>> variables(std::string_view value)
{
    std::vector<std::pair<std::string, std::string>> read;
    std::istringstream words{std::string(value)};
    for (std::string word; words >> word;) {
        const std::size_t equals = word.find('=');
        const bool known = std::any_of(
            std::begin(modules::kVariables), std::end(modules::kVariables),
            [&word](std::string_view begin) { return word.compare(0, begin.size(), begin) == 0; });
        if (equals == std::string::npos || !known)
            return std::nullopt;
        read.emplace_back(word.substr(0, equals), word.substr(equals + 1));
    }
    return read;
}

}  // namespace settings
