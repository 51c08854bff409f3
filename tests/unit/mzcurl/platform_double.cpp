// platform_double.cpp - the platform in the wrapper's tests: a log that keeps its records, and a network that
// a test changes.
#include "platform_double.h"

#include <platform/log.h>
#include <platform/network.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

namespace {

std::mutex g_lock;
std::vector<std::string> g_lines;
std::atomic<bool> g_networkHasChanged{false};

}  // namespace

void changeNetwork()
{
    g_networkHasChanged = true;
}

bool connection_profile_has_changed(void)
{
    return g_networkHasChanged.exchange(false);
}

std::vector<std::string> takeLog()
{
    const std::lock_guard<std::mutex> guard(g_lock);
    return std::exchange(g_lines, {});
}

int __dlog_print(log_priority prio, const char*, const char* format, ...)
{
    std::array<char, 4096> text{};
    va_list arguments;
    va_start(arguments, format);
    const int size = vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    const std::lock_guard<std::mutex> guard(g_lock);
    g_lines.push_back(std::string(1, "DIWE"[prio - DLOG_DEBUG]) + ' ' + text.data());
    return size;
}
