// log.cpp - the platform log. Safe from every thread and from a signal handler that runs while its
// thread waits: nothing is allocated or locked, and nothing but the caller's name is kept between
// two records.
#include "log_format.h"
#include "log_sink.h"

#include <platform/log.h>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* kTag = "BILLING_PLATFORM";

/// What the environment says, once for the life of the process.
struct Settings {
    int threshold;
    logging::Sink sink;
    logging::FormatOptions options;
};

const char* variable(const char* name)
{
    const char* const value = getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

/// @return 0 for a name that is no level
int levelOf(const char* name)
{
    static constexpr struct {
        const char* name;
        log_priority level;
    } kLevels[] = {
        {"debug", DLOG_DEBUG}, {"info", DLOG_INFO}, {"warning", DLOG_WARN}, {"error", DLOG_ERROR}};
    for (const auto& known : kLevels) {
        if (strcmp(name, known.name) == 0)
            return known.level;
    }
    return 0;
}

Settings fromEnvironment()
{
    Settings settings{DLOG_INFO, logging::detectSink(), {}};
    const char* const level = variable("PLEVO_LOG_LEVEL");
    if (level != nullptr && levelOf(level) != 0)
        settings.threshold = levelOf(level);
    const char* const privacy = variable("PLEVO_LOG_PRIVATE");
    settings.options.showPrivate = privacy != nullptr && strcmp(privacy, "show") == 0;
    settings.options.fields = settings.sink == logging::Sink::Journal;
    settings.options.colours = settings.sink == logging::Sink::Stderr && isatty(STDERR_FILENO) != 0;
    return settings;
}

const Settings g_settings = fromEnvironment();

thread_local logging::CallerName t_caller;

/// Reports what fromEnvironment() could not use.
bool reportEnvironment()
{
    const char* const level = variable("PLEVO_LOG_LEVEL");
    if (level != nullptr && levelOf(level) == 0)
        __dlog_print(DLOG_ERROR, kTag,
                     "log: PLEVO_LOG_LEVEL=%s is none of debug, info, warning and error; info is "
                     "used",
                     level);
    const char* const privacy = variable("PLEVO_LOG_PRIVATE");
    if (privacy != nullptr && strcmp(privacy, "show") != 0)
        __dlog_print(DLOG_ERROR, kTag,
                     "log: PLEVO_LOG_PRIVATE=%s is not show; private values stay hidden", privacy);
    return true;
}

// After the settings, which it logs by.
[[maybe_unused]] const bool g_reported = reportEnvironment();

}  // namespace

int __dlog_print(log_priority prio, const char* tag, const char* format, ...)
{
    if (prio < g_settings.threshold)
        return 0;
    const int error = errno;
    logging::Record record;
    logging::beginRecord(g_settings.sink, record, prio, tag);
    va_list arguments;
    va_start(arguments, format);
    logging::Parts parts = logging::writeMessage(record, g_settings.options, format, arguments);
    va_end(arguments);
    parts.caller = t_caller.data();
    record.finish();
    const int written = logging::writeRecord(g_settings.sink, record, prio, tag, parts);
    errno = error;
    return written;
}

int log_shows_private(log_priority prio)
{
    return prio >= g_settings.threshold && g_settings.options.showPrivate ? 1 : 0;
}

void log_set_caller(const char* name)
{
    snprintf(t_caller.data(), t_caller.size(), "%s", name != nullptr ? name : "");
}
