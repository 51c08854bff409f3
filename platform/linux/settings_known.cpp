// settings_known.cpp - the settings that exist, and what their values must look like.
#include "settings_known.h"

#include "common/contract.h"

#include <platform/account.h>

#include <glib.h>

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
    {"deployment", "credential", Kind::Text},
    {"deployment", "key_id", Kind::Text},
    {"deployment", "key_material", Kind::Text},
    {"keystore", "module", Kind::Text},
    {"keystore", "token", Kind::Text},
    {"keystore", "pin_file", Kind::Text},
    {"keystore", "store", Kind::Text},
};

constexpr std::string_view kErrorPrefix = "error:";

/// The faults that are peculiar to a kind.
std::string_view faultOfKind(Kind kind, std::string_view value)
{
    switch (kind) {
        case Kind::Text:
            return {};
        case Kind::Number:
            return contract::wholeNumber(value) ? "" : "is not a whole number of 32 bits";
        case Kind::Host:
            return value.empty() || contract::isBareHost(value)
                       ? ""
                       : "is not a bare host name (name or name:port, without scheme or path)";
        case Kind::Gateway:
            return gatewayRule(value) ? "" : "is none of auto, up, down and error:<code>";
        case Kind::LoginId:
            return value.size() < sizeof sso_login_info_s{}.user_id ? "" : "is over 255 bytes long";
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
    if (contract::holdsControl(value))
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
    const auto code = contract::wholeNumber(value.substr(kErrorPrefix.size()));
    if (!code || *code <= 0)
        return std::nullopt;
    return GatewayRule{Source::Failure, false, *code};
}

}  // namespace settings
