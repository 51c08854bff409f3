// environment.cpp - the environment of the process.
#include "environment.h"

#include "../common/module_variables.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace process {

namespace {

// Variables that may stay. The variables to remove cannot be listed: libraries read too many. A name
// that ends in '*' is a prefix.
constexpr const char* kKept[] = {
    // this system's own variables, and the address of its bus
    "PLEVO_*", "DBUS_SYSTEM_BUS_ADDRESS", "DBUS_STARTER_*",
    // the service manager
    "JOURNAL_STREAM", "NOTIFY_SOCKET", "INVOCATION_ID", "XDG_RUNTIME_DIR",
    // harmless for every program
    "PATH", "HOME", "USER", "LOGNAME", "TERM", "LANG", "LANGUAGE", "LC_*", "TZ", "TZDIR",
    // diagnosis
    "G_DEBUG", "G_MESSAGES_DEBUG", "G_SLICE", "MALLOC_*", "GLIBC_TUNABLES", "ASAN_*", "LSAN_*",
    "MSAN_*", "TSAN_*", "UBSAN_*", "GCOV_*", "LLVM_PROFILE_FILE"};

bool isKept(const std::string& name)
{
    for (const char* const begin : modules::kVariables) {
        if (name.compare(0, strlen(begin), begin) == 0)
            return true;
    }
    for (const char* const kept : kKept) {
        const std::size_t length = strlen(kept);
        const bool all = kept[length - 1] == '*';
        if (all ? name.compare(0, length - 1, kept, length - 1) == 0 : name == kept)
            return true;
    }
    return false;
}

bool isFolder(const char* path)
{
    struct stat status {};
    return path != nullptr && path[0] == '/' && stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

void cleanEnvironment()
{
    std::vector<std::string> dropped;
    for (char** variable = environ; variable != nullptr && *variable != nullptr; variable++) {
        const std::string name(*variable, strcspn(*variable, "="));
        if (!isKept(name))
            dropped.push_back(name);
    }
    for (const std::string& name : dropped)
        unsetenv(name.c_str());

    // A service that the bus has started has none. Nothing is ever written there.
    if (!isFolder(getenv("XDG_RUNTIME_DIR")))
        setenv("XDG_RUNTIME_DIR", isFolder("/run") ? "/run" : "/tmp", 1);
}

}  // namespace process
