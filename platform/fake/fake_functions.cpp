// fake_functions.cpp - the platform functions of the scriptable backend.
#include "common/value_rules.h"
#include "fake_state.h"

#include <platform/account.h>
#include <platform/config.h>
#include <platform/network.h>
#include <platform/process.h>
#include <platform/runtime_info.h>
#include <platform/system_info.h>
#include <platform/timezone.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

/// Records the call and returns the present answers.
fake::Answers answersTo(const std::string& call)
{
    fake::State& s = fake::state();
    const std::lock_guard<std::mutex> hold(s.lock);
    s.happened(fake::Event::CALL, call);
    return s.answers;
}

void logWrong(const std::string& name, const char* fault)
{
    __dlog_print(DLOG_ERROR, "BILLING_PLATFORM", "settings: %s %s", name.c_str(), fault);
}

/// Checks a text as every backend must. A control character is logged by the name of the value.
/// @return nullopt when the text is not set, empty or holds a control character
std::optional<std::string> readable(const std::optional<std::string>& value,
                                    const std::string& name)
{
    if (!value || value->empty())
        return std::nullopt;
    if (valuerules::holdsControl(*value)) {
        logWrong(name, "holds a control character");
        return std::nullopt;
    }
    return value;
}

char* heapCopy(const std::optional<std::string>& value)
{
    return value ? strdup(value->c_str()) : nullptr;
}

/// Fills *out on success only.
/// @return 0 or -1
int give(const std::optional<std::string>& value, char** out)
{
    if (!value)
        return -1;
    *out = heapCopy(value);
    return 0;
}

std::optional<std::string> configured(const fake::Answers& answers, const std::string& key)
{
    const auto found = answers.config.find(key);
    return found == answers.config.end() ? std::nullopt : std::optional(found->second);
}

thread_local std::string t_caller;

}  // namespace

int __dlog_print(log_priority prio, const char* tag, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length < 0)
        return -1;
    fake::LogRecord record =
        fake::parseRecord(prio, tag, std::string(text, static_cast<std::size_t>(length)));
    record.strCaller = t_caller;
    free(text);

    fake::State& s = fake::state();
    std::function<void(const fake::LogRecord&)> observer;
    {
        const std::lock_guard<std::mutex> hold(s.lock);
        s.timeline.push_back({fake::Event::LOG, record, {}});
        observer = s.observer;
    }
    // Called without the lock: the observer may call the platform, or log.
    if (observer)
        observer(record);
    return length;
}

int log_shows_private(log_priority)
{
    fake::State& s = fake::state();
    const std::lock_guard<std::mutex> hold(s.lock);
    return s.showsPrivate ? 1 : 0;
}

void log_set_caller(const char* name)
{
    t_caller = name != nullptr ? name : "";
}

char* vconf_get_str(const char* key)
{
    const fake::Answers answers = answersTo(std::string("vconf_get_str ") + key);
    return heapCopy(readable(configured(answers, key), key));
}

int vconf_get_int(const char* key, int* out)
{
    const fake::Answers answers = answersTo(std::string("vconf_get_int ") + key);
    const auto text = configured(answers, key);
    const auto number = text ? valuerules::wholeNumber(*text) : std::nullopt;
    if (!number)
        return -1;
    *out = *number;
    return 0;
}

int runtime_info_get_value_string(runtime_info_key_e key, char** out)
{
    const fake::Answers answers =
        answersTo("runtime_info_get_value_string " + std::to_string(static_cast<int>(key)));
    if (key != RUNTIME_INFO_KEY_LANGUAGE)
        return -1;
    return give(readable(answers.language, "language"), out);
}

int system_info_get_value_int(system_info_key_e key, int* out)
{
    const fake::Answers answers =
        answersTo("system_info_get_value_int " + std::to_string(static_cast<int>(key)));
    if (key != SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE || !answers.serverType)
        return -1;
    *out = *answers.serverType;
    return 0;
}

int sso_get_guid(char** out)
{
    return give(readable(answersTo("sso_get_guid").guid, "guid"), out);
}

int sso_get_auth_token(char** out)
{
    return give(readable(answersTo("sso_get_auth_token").authToken, "auth_token"), out);
}

int sso_get_login_info(sso_login_info_s* info)
{
    const auto id = readable(answersTo("sso_get_login_info").loginId, "login_id");
    if (!id || id->size() > sizeof info->user_id)
        return -1;
    // 256 bytes leave no room for the terminator: this tests the bound of the reader.
    memcpy(info->user_id, id->c_str(), std::min(id->size() + 1, sizeof info->user_id));
    return 0;
}

int mz_gettimezone(int* utcoff, int* dstoff, void*)
{
    const fake::Answers answers = answersTo("mz_gettimezone");
    if (!answers.timeZone)
        return -1;
    *utcoff = answers.timeZone->first;
    *dstoff = answers.timeZone->second;
    return 0;
}

int connection_profile_check_default_gateway(bool* exists)
{
    const fake::Answers answers = answersTo("connection_profile_check_default_gateway");
    if (answers.gatewayError != 0)
        return answers.gatewayError;
    *exists = answers.gatewayExists;
    return 0;
}

bool connection_profile_has_changed(void)
{
    fake::State& s = fake::state();
    const std::lock_guard<std::mutex> hold(s.lock);
    return std::exchange(s.answers.networkHasChanged, false);
}

char* deployment_get_host(deployment_host_e which)
{
    const int index = static_cast<int>(which);
    const fake::Answers answers = answersTo("deployment_get_host " + std::to_string(index));
    if (index < 0 || index > DEPLOYMENT_HOST_SANDBOX)
        return nullptr;
    const std::string name = index == 0 ? "production_host" : "sandbox_host";
    const auto host = readable(answers.hosts[index], name);
    if (host && valuerules::isBareHost(*host))
        return heapCopy(host);
    logWrong(name, host ? "is not a bare host name" : "is not set");
    return nullptr;
}

// A test process keeps its signals and its environment.
void platform_process_start(void) {}
