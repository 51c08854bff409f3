// BillingLog.h - the macros through which the service writes every line of the platform log.
//
// A line is "<file>: <function>(<line>) > <text>". Debug marks the beginning and the end of an operation,
// info its progress, warning the shutdown, error a failure. Info and error texts are coloured, except
// those of the _PLAIN forms.
#pragma once

#include <platform/log.h>

#include <cstring>

#define BILLING_LOG_TAG "BILLING_SERVICE"
#define BILLING_COLOUR_INFO "\033[0;33m"
#define BILLING_COLOUR_ERROR "\033[0;31m"
#define BILLING_COLOUR_END "\033[0;m"

/// @param szPath __FILE__; not null
/// @return the file's name without its folder; points into szPath
inline const char* BillingLogFile(const char* szPath)
{
    const char* szSlash = std::strrchr(szPath, '/');
    return szSlash != nullptr ? szSlash + 1 : szPath;
}

// The _AS forms take the name of the operation: for functions that several operations share.
#define BILLING_LOG_AS(function, priority, format, ...)                                       \
    __dlog_print(priority, BILLING_LOG_TAG, "%s: %s(%d) > " format, BillingLogFile(__FILE__), \
                 function, __LINE__, ##__VA_ARGS__)

#define BILLING_DEBUG_AS(function, text, ...) \
    BILLING_LOG_AS(function, DLOG_DEBUG, text, ##__VA_ARGS__)
#define BILLING_INFO_AS(function, text, ...) \
    BILLING_LOG_AS(function, DLOG_INFO, BILLING_COLOUR_INFO text BILLING_COLOUR_END, ##__VA_ARGS__)
#define BILLING_ERROR_AS(function, text, ...)                                          \
    BILLING_LOG_AS(function, DLOG_ERROR, BILLING_COLOUR_ERROR text BILLING_COLOUR_END, \
                   ##__VA_ARGS__)
#define BILLING_REFUSED_AS(function, condition) \
    BILLING_ERROR_AS(function, "(%s) -> %s() return", condition, function)

#define BILLING_DEBUG(text, ...) BILLING_DEBUG_AS(__func__, text, ##__VA_ARGS__)
#define BILLING_INFO(text, ...) BILLING_INFO_AS(__func__, text, ##__VA_ARGS__)
#define BILLING_INFO_PLAIN(text, ...) BILLING_LOG_AS(__func__, DLOG_INFO, text, ##__VA_ARGS__)
#define BILLING_WARN(text, ...) BILLING_LOG_AS(__func__, DLOG_WARN, text, ##__VA_ARGS__)
#define BILLING_ERROR(text, ...) BILLING_ERROR_AS(__func__, text, ##__VA_ARGS__)
#define BILLING_ERROR_PLAIN(text, ...) BILLING_LOG_AS(__func__, DLOG_ERROR, text, ##__VA_ARGS__)

/// Logs that the operation is refused, with a text for the condition: for conditions that cannot be
/// written as code.
#define BILLING_REFUSED(condition) BILLING_REFUSED_AS(__func__, condition)

/// Precondition: if the condition holds, logs its text and returns the value that follows, if any.
#define BILLING_RETURN_IF(condition, ...)             \
    do {                                              \
        if (condition) {                              \
            BILLING_REFUSED_AS(__func__, #condition); \
            return __VA_ARGS__;                       \
        }                                             \
    } while (false)
