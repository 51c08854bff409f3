// log_double.cpp - the platform's log in the wrapper's tests: keeps what it is given.
#include "log_double.h"

#include <platform/log.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

namespace {

std::mutex g_lock;
std::vector<std::string> g_lines;

}  // namespace

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
    g_lines.push_back((prio == DLOG_DEBUG ? "D " : "I ") + std::string(text.data()));
    return size;
}
