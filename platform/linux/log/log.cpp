// log.cpp - the platform log. It allocates nothing and takes no lock, so every thread may log, and so
// may a signal handler that runs while its thread waits. The caller's name and number are its only state.
#include "common/served_call.h"
#include "log_format.h"
#include "log_sink.h"
#include "log_steps.h"

#include <platform/log.h>

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* kTag = "BILLING_PLATFORM";

/// Level and options from the environment, read once in the life of the process.
struct Settings {
    int threshold;
    bool steps;  ///< write the steps of a call too (information level)
    logging::Sink sink;
    logging::FormatOptions options;
};

const char* variable(const char* name)
{
    const char* const value = getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

struct Level {
    const char* name;
    log_priority threshold;
    bool steps;
};

/// @return null for an unknown level
const Level* levelOf(const char* name)
{
    static constexpr Level kLevels[] = {{"debug", DLOG_DEBUG, true},
                                        {"info", DLOG_INFO, true},
                                        {"call", DLOG_INFO, false},
                                        {"warning", DLOG_WARN, false},
                                        {"error", DLOG_ERROR, false}};
    for (const Level& known : kLevels) {
        if (strcmp(name, known.name) == 0)
            return &known;
    }
    return nullptr;
}

Settings fromEnvironment()
{
    const logging::Sink sink = logging::detectSink();
    // A journal is stored and leaves the steps out; a terminal shows them.
    Settings settings{DLOG_INFO, sink == logging::Sink::Stderr, sink, {}};
    const char* const name = variable("PLEVO_LOG_LEVEL");
    const Level* const level = name != nullptr ? levelOf(name) : nullptr;
    if (level != nullptr) {
        settings.threshold = level->threshold;
        settings.steps = level->steps;
    }
    const char* const privacy = variable("PLEVO_LOG_PRIVATE");
    settings.options.showPrivate = privacy != nullptr && strcmp(privacy, "show") == 0;
    settings.options.fields = settings.sink == logging::Sink::Journal;
    settings.options.colours = settings.sink == logging::Sink::Stderr && isatty(STDERR_FILENO) != 0;
    return settings;
}

const Settings g_settings = fromEnvironment();

thread_local logging::CallerName t_caller;

/// Reports the values that fromEnvironment() has refused.
bool reportEnvironment()
{
    const char* const level = variable("PLEVO_LOG_LEVEL");
    if (level != nullptr && levelOf(level) == nullptr)
        __dlog_print(DLOG_ERROR, kTag,
                     "log: PLEVO_LOG_LEVEL=%s is none of debug, info, call, warning and error; the "
                     "default is used",
                     level);
    const char* const privacy = variable("PLEVO_LOG_PRIVATE");
    if (privacy != nullptr && strcmp(privacy, "show") != 0)
        __dlog_print(DLOG_ERROR, kTag,
                     "log: PLEVO_LOG_PRIVATE=%s is not show; private values stay hidden", privacy);
    return true;
}

// Must be defined after the settings, since it logs.
[[maybe_unused]] const bool g_reported = reportEnvironment();

}  // namespace

int __dlog_print(log_priority prio, const char* tag, const char* format, ...)
{
    if (prio < g_settings.threshold)
        return 0;
    if (prio == DLOG_INFO && !g_settings.steps && logging::isStep(format))
        return 0;
    const int error = errno;
    logging::Record record;
    logging::beginRecord(g_settings.sink, record, prio, tag);
    va_list arguments;
    va_start(arguments, format);
    logging::Parts parts = logging::writeMessage(record, g_settings.options, format, arguments);
    va_end(arguments);
    parts.caller = t_caller.data();
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
    const std::size_t length = name != nullptr ? strnlen(name, t_caller.size() - 1) : 0;
    if (length > 0)
        memcpy(t_caller.data(), name, length);
    t_caller[length] = '\0';
    servedcall::set(length > 0);
}
