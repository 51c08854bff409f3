// arrange_fake.cpp - the contract suite on the scriptable backend.
#include "arrange.h"
#include "common/value_rules.h"

#include <fake_platform.h>

using fake::platform;

void arrange::bareDevice()
{
    platform().reset();
    for (const char* const key : {"db/comss/atoken", "db/comss/hwduid", "db/comss/countrycode",
                                  "db/comss/modelid", "memory/menu/network/set_time"})
        platform().config(key, std::nullopt);
    platform().language(std::nullopt);
    platform().serverType(std::nullopt);
    platform().guid(std::nullopt);
    platform().authToken(std::nullopt);
    platform().loginId(std::nullopt);
    platform().host(DEPLOYMENT_HOST_PRODUCTION, std::nullopt);
    platform().host(DEPLOYMENT_HOST_SANDBOX, std::nullopt);
}

void arrange::config(const std::string& key, std::optional<std::string> value)
{
    platform().config(key, std::move(value));
}

void arrange::language(std::optional<std::string> value)
{
    platform().language(std::move(value));
}

void arrange::serverType(std::optional<int> value)
{
    platform().serverType(value);
}

void arrange::guid(std::optional<std::string> value)
{
    platform().guid(std::move(value));
}

void arrange::authToken(std::optional<std::string> value)
{
    platform().authToken(std::move(value));
}

void arrange::loginId(std::optional<std::string> value)
{
    platform().loginId(std::move(value));
}

void arrange::gateway(bool exists)
{
    platform().gateway(exists);
}

void arrange::gatewayFails(int code)
{
    platform().gatewayFails(code);
}

void arrange::host(deployment_host_e which, std::optional<std::string> value)
{
    platform().host(which, std::move(value));
}

/// The fake takes numbers, so a text that is no number counts as not set.
void arrange::credential(const std::string& words, const std::string& keyId)
{
    std::array<std::uint32_t, 5> read{};
    const bool known = valuerules::numbers32(words, read.data(), read.size());
    platform().credential(known ? std::optional(read) : std::nullopt);
    platform().keyId(valuerules::wholeNumber(keyId));
}

void arrange::zoneWithDaylightSaving()
{
    platform().timeZone({{3600, 3600}});
}

void arrange::zoneWithoutDaylightSaving()
{
    platform().timeZone({{19800, 0}});
}

void arrange::zoneThatCannotBeRead()
{
    platform().timeZone(std::nullopt);
}

std::vector<std::string> arrange::errors()
{
    std::vector<std::string> found;
    for (const fake::LogRecord& record : platform().log()) {
        if (record.ePriority == DLOG_ERROR)
            found.push_back(record.strText);
    }
    return found;
}

std::vector<std::string> arrange::texts()
{
    std::vector<std::string> found;
    for (const fake::LogRecord& record : platform().log())
        found.push_back(record.strText);
    return found;
}
