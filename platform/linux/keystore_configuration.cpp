// keystore_configuration.cpp - the key store's values are the group [keystore] of the settings file.
#include "keystore/configuration.h"
#include "settings/settings.h"

namespace {

constexpr const char* kGroup = "keystore";

std::optional<std::string> settingOf(const char* key)
{
    return settings::text(kGroup, key);
}

void reportMissing(const char* key, const char* consequence)
{
    settings::reportMissing(kGroup, key, consequence);
}

}  // namespace

const keystore::Configuration& keystore::configuration()
{
    static constexpr Configuration kConfiguration{settingOf, reportMissing};
    return kConfiguration;
}
