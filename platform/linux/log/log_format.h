// log_format.h - writes a printf format and its arguments into a record, argument by argument: the
// format is the program's own and trusted, what comes in through an argument is not.
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

/// Where a message comes from, when it begins with the file, function and line of its writer. The
/// texts are the caller's.
struct Origin {
    const char* file = nullptr;
    const char* function = nullptr;
    int line = 0;
};

/// The name of a bus client, which has at most 255 bytes.
using CallerName = std::array<char, 256>;

/// What of a record has a field beside its text.
struct Parts {
    const char* caller = "";  ///< on whose behalf; a text that outlives the record
    Origin origin;
    std::array<Field, kMostFields> fields{};
    std::size_t fieldCount = 0;
};

/// Writes the message; the record is not finished. Known are the conversions that messages of the
/// service have: %s, %p, and %d, %u and %x, these with l, ll or z. Any other one is written as it
/// stands, and so is all that follows it.
Parts writeMessage(Record& record, const FormatOptions& options, const char* format,
                   va_list arguments);

}  // namespace logging
