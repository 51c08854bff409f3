// platform/include/platform/log.h - the platform's log.
#pragma once
#ifdef __cplusplus
extern "C" {
#endif

/// Priority of a message, lowest first.
typedef enum {
    DLOG_DEBUG = 3,
    DLOG_INFO = 4,
    DLOG_WARN = 5,
    DLOG_ERROR = 6,
} log_priority;

/// Writes one log record.
/// @param prio priority; a record below the level that the platform is set to is dropped before it
///   is formatted
/// @param tag short name of the writing program; not null
/// @param format printf format; not null. Colour codes ("\e[0;31m", "\e[0;33m", "\e[0;m") are
///   allowed in the format. The platform escapes control characters of arguments. One line break at
///   the end of the text, also before a closing colour code, is allowed and is not part of the
///   record. Null for a "%s" prints "(null)". Private values (tokens, ids, bodies) are passed in
///   clear: the platform hides them.
/// @return the number of bytes written, 0 when the record was dropped, -1 when it could not be
///   written
/// Thread: any. Does not block on the reader of the log longer than one write.
int __dlog_print(log_priority prio, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/// Tells whether a record of that priority would show private values. If not, the caller need not
/// format them.
/// @return 1, or 0 when the record would be dropped or its private values hidden
/// Thread: any
int log_shows_private(log_priority prio);

/// Sets the bus client that the calling thread serves from now on, for logs whose records have
/// fields. Other logs do nothing here.
/// @param name unique name of the client, at most 255 bytes; copied. Null or empty for none
/// Thread: any; it applies to the calling thread only.
void log_set_caller(const char* name);

#ifdef __cplusplus
}
#endif
