// values.cpp - the worked example of a port: a device that keeps each value in a file of one folder,
// $PLEVO_EXAMPLE_DEVICE or /etc/billing-device. Secure storage and keys come from platform/keystore.
#include "common/c_functions.h"
#include "common/value_rules.h"
#include "keystore/configuration.h"

#include <platform/account.h>
#include <platform/config.h>
#include <platform/deployment.h>
#include <platform/log.h>
#include <platform/network.h>
#include <platform/runtime_info.h>
#include <platform/system_info.h>
#include <platform/timezone.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace {

/// Logs the fault of a value, by its name only.
/// @return -1
int wrong(const char* name, const char* fault)
{
    __dlog_print(DLOG_ERROR, "BILLING_PLATFORM", "settings: %s %s", name, fault);
    return -1;
}

/// Reads a whole file.
/// @return nullopt when there is none
std::optional<std::string> bytesOf(const std::string& name)
{
    const char* const folder = getenv("PLEVO_EXAMPLE_DEVICE");
    std::ifstream file((folder != nullptr ? folder : "/etc/billing-device") + ("/" + name),
                       std::ios::binary);
    if (!file)
        return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(file), {});
}

/// A text as the service may have it.
std::optional<std::string> deviceText(const std::string& name)
{
    auto value = bytesOf(name);
    // The line break that an editor adds.
    if (value && !value->empty() && value->back() == '\n')
        value->pop_back();
    if (!value || value->empty())
        return std::nullopt;
    if (valuerules::holdsControl(*value)) {
        wrong(name.c_str(), "holds a control character");
        return std::nullopt;
    }
    return value;
}

std::optional<int> numberOf(const std::string& name)
{
    const auto value = deviceText(name);
    return value ? valuerules::wholeNumber(*value) : std::nullopt;
}

/// Removes the service's colours and the closing line break, and replaces control characters of
/// arguments.
std::string oneLine(const std::string& record)
{
    std::string line;
    for (std::size_t i = 0; i < record.size(); i++) {
        if (record.compare(i, 2, "\033[") == 0 && record.find('m', i) != std::string::npos)
            i = record.find('m', i);
        else
            line += record[i];
    }
    if (!line.empty() && line.back() == '\n')
        line.pop_back();
    for (char& c : line) {
        if (valuerules::holdsControl({&c, 1}))
            c = '?';
    }
    return line + "\n";
}

/// Only errors are written; lesser records hold private values and are not even formatted.
int print(log_priority prio, const char* tag, const char* format, va_list arguments)
{
    if (prio < DLOG_ERROR)
        return 0;
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    if (length < 0)
        return -1;
    const std::string record = text;
    free(text);
    const std::string line = std::string("E/") + tag + ": " + oneLine(record);
    return static_cast<int>(write(STDERR_FILENO, line.data(), line.size()));
}

std::optional<std::string> keystoreText(const char* key)
{
    return deviceText(std::string("keystore/") + key);
}

void reportMissing(const char* key, const char* consequence)
{
    wrong(key, ("is not set: " + std::string(consequence)).c_str());
}

}  // namespace

// Settings of the key store, each a file of the folder "keystore": module, token, pin_file, store (folder of the named data),
// seal_key.
const keystore::Configuration& keystore::configuration()
{
    static constexpr Configuration kConfiguration{keystoreText, reportMissing};
    return kConfiguration;
}

int __dlog_print(log_priority prio, const char* tag, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int written = seam::guarded(-1, [&] { return print(prio, tag, format, arguments); });
    va_end(arguments);
    return written;
}

// Errors are written with their values.
int log_shows_private(log_priority prio)
{
    return prio >= DLOG_ERROR ? 1 : 0;
}

// Records of this log have no fields, so the caller is not kept.
void log_set_caller(const char*) {}

char* vconf_get_str(const char* key)
{
    return seam::guarded<char*>(
        nullptr, [&] { return seam::heapCopy(deviceText(std::string("config/") + key)); });
}

int vconf_get_int(const char* key, int* out)
{
    return seam::guarded(-1, [&] {
        const auto value = numberOf(std::string("config/") + key);
        if (value)
            *out = *value;
        return value ? 0 : -1;
    });
}

int runtime_info_get_value_string(runtime_info_key_e key, char** out)
{
    return seam::guarded(-1, [&] {
        return key == RUNTIME_INFO_KEY_LANGUAGE ? seam::give(deviceText("language"), out) : -1;
    });
}

int system_info_get_value_int(system_info_key_e key, int* out)
{
    return seam::guarded(-1, [&] {
        const auto value = numberOf("server_type");
        if (key != SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE || !value)
            return -1;
        *out = *value;
        return 0;
    });
}

int sso_get_guid(char** out)
{
    return seam::guarded(-1, [&] { return seam::give(deviceText("guid"), out); });
}

int sso_get_auth_token(char** out)
{
    return seam::guarded(-1, [&] { return seam::give(deviceText("auth_token"), out); });
}

int sso_get_login_info(sso_login_info_s* info)
{
    return seam::guarded(-1, [&] {
        const auto id = deviceText("login_id");
        if (!id || id->size() >= sizeof info->user_id)
            return -1;
        memcpy(info->user_id, id->c_str(), id->size() + 1);
        return 0;
    });
}

int connection_profile_check_default_gateway(bool* exists)
{
    // "up", "down" or an error number. A real device asks its kernel.
    return seam::guarded(ENOMEM, [&] {
        const auto state = deviceText("gateway");
        const auto error = numberOf("gateway");
        if (!error)
            *exists = state == "up";
        return error.value_or(0);
    });
}

bool connection_profile_has_changed(void)
{
    // This device has no reports of changes: the wrapper finds dead connections by their age only.
    return false;
}

int mz_gettimezone(int* utcoff, int* dstoff, void*)
{
    return seam::guarded(-1, [&] {
        // Two numbers: without daylight saving, and what it adds now.
        const auto zone = deviceText("zone");
        int utc = 0;
        int saving = 0;
        if (!zone || sscanf(zone->c_str(), "%d %d", &utc, &saving) != 2)
            return -1;
        *utcoff = utc;
        *dstoff = saving;
        return 0;
    });
}

char* deployment_get_host(deployment_host_e which)
{
    return seam::guarded<char*>(nullptr, [&]() -> char* {
        const char* const name =
            which == DEPLOYMENT_HOST_PRODUCTION ? "production_host" : "sandbox_host";
        const auto host = deviceText(name);
        if (host && valuerules::isBareHost(*host))
            return seam::heapCopy(host);
        wrong(name, host ? "is not a bare host name" : "is not set");
        return nullptr;
    });
}

int deployment_get_credential(uint32_t words[5])
{
    return seam::guarded(-1, [&] {
        uint32_t read[5];
        const auto credential = deviceText("credential");
        if (!credential)
            return wrong("credential", "is not set");
        if (!valuerules::numbers32(*credential, read, 5))
            return wrong("credential", "is not five numbers of 32 bits");
        std::copy(std::begin(read), std::end(read), words);
        return 0;
    });
}

int deployment_get_key_id(int32_t* key_id)
{
    return seam::guarded(-1, [&] {
        const int id = numberOf("key_id").value_or(0);
        if (id == 0)
            return wrong("key_id", "is not set");
        *key_id = id;
        return 0;
    });
}

int deployment_get_key_material(unsigned char** sealed, size_t* size)
{
    return seam::guarded(-1, [&] {
        const auto material = bytesOf("key_material");
        void* const copy = material ? malloc(material->size() + 1) : nullptr;
        if (copy == nullptr)
            return -1;
        *sealed = static_cast<unsigned char*>(copy);
        std::copy(material->begin(), material->end(), *sealed);
        *size = material->size();
        return 0;
    });
}
