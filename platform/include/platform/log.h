// platform/include/platform/log.h - the platform's log.
#pragma once
#ifdef __cplusplus
extern "C" {
#endif

/// How much a message matters, least first.
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
///   allowed in the format; control characters that come in through an argument are escaped by the
///   platform. One line break at the end of the text, before a closing colour code too, is allowed
///   and is not part of the record. Null for a "%s" prints "(null)". Private values (tokens, ids,
///   bodies) are passed as they are: hiding them is the platform's part.
/// @return the number of bytes written, 0 when the record was dropped, -1 when it could not be
///   written
/// Thread: any. Does not block on the reader of the log longer than one write.
int __dlog_print(log_priority prio, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/// Says whether a record of that priority would show its private values: where it would not, no text
/// need be made for them.
/// @return 1, or 0 when the record would be dropped or its private values hidden
/// Thread: any
int log_shows_private(log_priority prio);

/// Says on whose behalf the calling thread logs from now on, for a log whose records have fields
/// beside their text. Where there is none, nothing need be done.
/// @param name the unique name of a bus client, at most 255 bytes as the bus has it; copied. Null
///   or empty: nobody's
/// Thread: any; counts for the calling thread alone.
void log_set_caller(const char* name);

#ifdef __cplusplus
}
#endif
