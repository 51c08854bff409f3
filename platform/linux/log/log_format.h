// log_format.h - writes a printf format and its arguments into a record. The format is the program's
// own and trusted; the arguments are not.
#pragma once

#include "log_fields.h"
#include "log_private.h"
#include "log_record.h"

#include <array>
#include <cstdarg>
#include <string_view>

namespace logging {

struct FormatOptions {
    bool colours = false;      ///< keep the colour codes of the format
    bool showPrivate = false;  ///< do not hide private values
    bool fields = false;       ///< note which values have a field of their own
};

/// File, function and line at the beginning of a message of the service. The texts belong to the
/// caller.
struct Origin {
    const char* file = nullptr;
    const char* function = nullptr;
    int line = 0;
};

/// The name of a bus client, which has at most 255 bytes.
using CallerName = std::array<char, 256>;

/// The parts of a record that are fields beside its text.
struct Parts {
    const char* caller = "";  ///< bus client that is served; must outlive the record
    Origin origin;
    std::array<Field, kMostFields> fields{};
    std::size_t fieldCount = 0;
};

/// Writes the message and leaves the record open. Conversions: %s, %p, and %d, %u, %x with or without
/// l, ll, z. An unknown one and all text behind it are written unchanged.
Parts writeMessage(Record& record, const FormatOptions& options, const char* format,
                   va_list arguments);

}  // namespace logging
