// arrange_example.cpp - the contract suite on the worked example of a port.
#include "arrange.h"
#include "example_device.h"

#include <memory>

namespace {

/// Lives until the next device replaces it; never destroyed at the end of the process.
std::unique_ptr<ExampleDevice> g_device;

}  // namespace

void arrange::bareDevice()
{
    g_device.reset();
    g_device = std::make_unique<ExampleDevice>();
}

void arrange::config(const std::string& key, std::optional<std::string> value)
{
    g_device->set("config/" + key, value);
}

void arrange::language(std::optional<std::string> value)
{
    g_device->set("language", value);
}

void arrange::serverType(std::optional<int> value)
{
    g_device->set("server_type", value ? std::optional(std::to_string(*value)) : std::nullopt);
}

void arrange::guid(std::optional<std::string> value)
{
    g_device->set("guid", value);
}

void arrange::authToken(std::optional<std::string> value)
{
    g_device->set("auth_token", value);
}

void arrange::loginId(std::optional<std::string> value)
{
    g_device->set("login_id", value);
}

void arrange::gateway(bool exists)
{
    g_device->set("gateway", exists ? "up" : "down");
}

void arrange::gatewayFails(int code)
{
    g_device->set("gateway", std::to_string(code));
}

void arrange::host(deployment_host_e which, std::optional<std::string> value)
{
    g_device->set(which == DEPLOYMENT_HOST_PRODUCTION ? "production_host" : "sandbox_host", value);
}

void arrange::credential(const std::string& words, const std::string& keyId)
{
    g_device->set("credential", words);
    g_device->set("key_id", keyId);
}

void arrange::zoneWithDaylightSaving()
{
    g_device->set("zone", "3600 3600");
}

void arrange::zoneWithoutDaylightSaving()
{
    g_device->set("zone", "19800 0");
}

void arrange::zoneThatCannotBeRead()
{
    g_device->set("zone", std::nullopt);
}

std::vector<std::string> arrange::errors()
{
    return g_device->log().linesWith("E/BILLING_PLATFORM: ");
}

std::vector<std::string> arrange::texts()
{
    return g_device->log().lines();
}
