// platform_log.cpp - the platform log of this program: prints nothing; the first error becomes the cause of a failed check.
#include "platform_log.h"

#include <platform/log.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

namespace {

struct Log {
    std::mutex lock;
    std::string complaint;
    bool keeps = false;
    std::vector<std::string> records;
};

/// Never destroyed: the service's worker may still log while the process exits.
Log& log()
{
    static Log* const instance = new Log;
    return *instance;
}

}  // namespace

int __dlog_print(log_priority prio, const char* /*tag*/, const char* format, ...)
{
    Log& kept = log();
    const std::lock_guard<std::mutex> hold(kept.lock);
    const bool complains = prio == DLOG_ERROR && kept.complaint.empty();
    if (format == nullptr || (!complains && !kept.keeps)) {
        return 0;
    }
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (complains) {
        kept.complaint = text;
    }
    if (kept.keeps) {
        kept.records.emplace_back(text);
    }
    return 0;
}

void log_set_caller(const char* /*name*/) {}

namespace client {

std::string takeComplaint()
{
    const std::lock_guard<std::mutex> hold(log().lock);
    return std::exchange(log().complaint, {});
}

void keepRecords()
{
    const std::lock_guard<std::mutex> hold(log().lock);
    log().keeps = true;
}

std::vector<std::string> records()
{
    const std::lock_guard<std::mutex> hold(log().lock);
    return log().records;
}

}  // namespace client
