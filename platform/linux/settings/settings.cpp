// settings.cpp - keeps the last version of the settings file and reads a changed file again.
#include "settings.h"

#include "common/served_call.h"
#include "common/value_rules.h"
#include "settings_file.h"

#include <platform/log.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>

namespace settings {

namespace {

using Snapshot = std::shared_ptr<const Values>;

/// The last version of the file, guarded by the lock.
struct Cache {
    std::mutex lock;
    std::string path;
    Contents contents;
    Snapshot values;
    std::set<Name> missing;        ///< already reported as not set in this version
    std::uint32_t checkedFor = 0;  ///< the bus call for which the file was compared last
};

/// Never destroyed: another thread may read a setting while the process ends.
Cache& cache()
{
    static Cache* const instance = new Cache;
    return *instance;
}

void logProblem(const std::string& problem)
{
    __dlog_print(DLOG_ERROR, "BILLING_PLATFORM", "settings: %s", problem.c_str());
}

const char* configuredPath()
{
    const char* const path = getenv("PLEVO_DEVICE_CONF");
    return path != nullptr && *path != '\0' ? path : "/etc/plevo/device.conf";
}

bool isCurrent(const Cache& cache, const char* path)
{
    struct stat status {};
    return cache.values != nullptr && cache.contents.settled && cache.path == path &&
           stat(path, &status) == 0 && Stamp::of(status) == cache.contents.stamp;
}

/// Brings the cache up to date with the file. Precondition: the caller holds the lock.
/// @return true when the file has other values than before
bool refresh(Cache& c)
{
    const char* const path = configuredPath();
    if (isCurrent(c, path))
        return false;
    Contents contents = readFile(path);
    if (c.values != nullptr && c.path == path && contents.sameAs(c.contents)) {
        c.contents = std::move(contents);
        return false;
    }
    c.values = std::make_shared<const Values>(parse(path, contents));
    c.path = path;
    c.contents = std::move(contents);
    c.missing.clear();
    return true;
}

/// The values of the present file. The file is compared once for each bus call: a call reads ten
/// settings. Faults of a new version are logged after the lock is released, since the log may wait for
/// its reader.
Snapshot current()
{
    const std::uint32_t call = servedcall::number();
    Cache& c = cache();
    Snapshot values;
    {
        const std::lock_guard<std::mutex> hold(c.lock);
        if (call != 0 && c.checkedFor == call)
            return c.values;
        const bool isNew = refresh(c);
        c.checkedFor = call;
        if (!isNew)
            return c.values;
        values = c.values;
    }
    for (const std::string& problem : values->problems)
        logProblem(problem);
    return values;
}

}  // namespace

std::string filePath()
{
    return configuredPath();
}

std::shared_ptr<const std::string> shared(const char* group, const char* key)
{
    const Snapshot values = current();
    const auto found = values->texts.find(ByName::View{group, key});
    if (found == values->texts.end() || found->second.empty())
        return nullptr;
    return {values, &found->second};
}

std::optional<std::string> text(const char* group, const char* key)
{
    const auto value = shared(group, key);
    return value != nullptr ? std::optional<std::string>(*value) : std::nullopt;
}

std::optional<int> number(const char* group, const char* key)
{
    const auto value = shared(group, key);
    return value != nullptr ? valuerules::wholeNumber(*value) : std::nullopt;
}

bool isRefused(const char* group, const char* key)
{
    return current()->refused.count(ByName::View{group, key}) != 0;
}

void reportMissing(const char* group, const char* key, const char* consequence)
{
    const Snapshot values = current();
    if (!values->usable || values->refused.count(ByName::View{group, key}) != 0)
        return;
    Cache& c = cache();
    std::string path;
    {
        const std::lock_guard<std::mutex> hold(c.lock);
        if (!c.missing.insert({group, key}).second)
            return;
        path = c.path;
    }
    logProblem(path + ": [" + group + "] " + key + " is not set; " + consequence);
}

}  // namespace settings
