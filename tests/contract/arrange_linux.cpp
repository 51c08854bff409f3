// arrange_linux.cpp - the contract suite on the Linux backend: a settings file, the time zone's
// variable, and standard error for the log.
#include "arrange.h"
#include "device_conf.h"

#include <cstdlib>
#include <ctime>
#include <memory>

namespace {

struct Device {
    device::Conf conf;
    device::CapturedLog log;
};

/// Lives until the next device replaces it; never destroyed at the end of the process.
std::unique_ptr<Device> g_device;

std::optional<std::string> asText(std::optional<int> number)
{
    return number ? std::optional(std::to_string(*number)) : std::nullopt;
}

}  // namespace

void arrange::bareDevice()
{
    g_device.reset();
    g_device = std::make_unique<Device>();
    g_device->conf.set("network", "default_gateway", "down");
    setenv("TZ", "UTC0", 1);
}

void arrange::config(const std::string& key, std::optional<std::string> value)
{
    g_device->conf.set("config", key, std::move(value));
}

void arrange::language(std::optional<std::string> value)
{
    g_device->conf.set("runtime", "language", std::move(value));
}

void arrange::serverType(std::optional<int> value)
{
    g_device->conf.set("system", "vantor_server_type", asText(value));
}

void arrange::guid(std::optional<std::string> value)
{
    g_device->conf.set("account", "guid", std::move(value));
}

void arrange::authToken(std::optional<std::string> value)
{
    g_device->conf.set("account", "auth_token", std::move(value));
}

void arrange::loginId(std::optional<std::string> value)
{
    g_device->conf.set("account", "login_id", std::move(value));
}

void arrange::gateway(bool exists)
{
    g_device->conf.set("network", "default_gateway", exists ? "up" : "down");
}

void arrange::gatewayFails(int code)
{
    g_device->conf.set("network", "default_gateway", "error:" + std::to_string(code));
}

void arrange::host(deployment_host_e which, std::optional<std::string> value)
{
    g_device->conf.set("deployment",
                       which == DEPLOYMENT_HOST_PRODUCTION ? "production_host" : "sandbox_host",
                       std::move(value));
}

void arrange::credential(const std::string& words, const std::string& keyId)
{
    g_device->conf.set("deployment", "credential", words);
    g_device->conf.set("deployment", "key_id", keyId);
}

void arrange::zoneWithDaylightSaving()
{
    // Daylight saving lasts from a hundred days ago to a hundred days ahead.
    const time_t now = time(nullptr);
    struct tm today {};
    gmtime_r(&now, &today);
    const auto day = [&](int ahead) {
        return std::to_string((today.tm_yday + 365 + ahead) % 365 + 1);
    };
    setenv("TZ", ("AAA-1BBB-2,J" + day(-100) + ",J" + day(100)).c_str(), 1);
}

void arrange::zoneWithoutDaylightSaving()
{
    setenv("TZ", "AAA-5:30", 1);
}

void arrange::zoneThatCannotBeRead()
{
    setenv("TZ", "No/Such_Zone", 1);
}

std::vector<std::string> arrange::errors()
{
    return g_device->log.linesWith("E/BILLING_PLATFORM: ");
}

std::vector<std::string> arrange::texts()
{
    return g_device->log.lines();
}
