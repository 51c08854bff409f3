// log_format.cpp - walks a printf format.
#include "log_format.h"

#include "log_private.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace logging {

namespace {

constexpr std::string_view kColours[] = {kColourInfo, kColourError, kColourEnd};

/// So that the list can be handed on by reference: a va_list may be an array.
struct Arguments {
    va_list list;
};

enum class Length { None, Char, Short, Long, LongLong, Size, Max, Pointer, LongDouble };

struct Conversion {
    char flags[6] = "";  // each at most once
    int width = 0;
    int precision = -1;
    Length length = Length::None;
    char type = '\0';
};

int readNumber(const char*& at, Arguments& arguments)
{
    if (*at == '*') {
        at++;
        return va_arg(arguments.list, int);
    }
    int number = 0;
    for (; *at >= '0' && *at <= '9'; at++)
        number = number < 10000 ? number * 10 + (*at - '0') : number;
    return number;
}

Length readLength(const char*& at)
{
    const char letter = *at;
    if (letter == '\0' || strchr("hlzjtLq", letter) == nullptr)
        return Length::None;
    at++;
    const bool twice = (letter == 'h' || letter == 'l') && *at == letter;
    if (twice)
        at++;
    switch (letter) {
        case 'h':
            return twice ? Length::Char : Length::Short;
        case 'l':
            return twice ? Length::LongLong : Length::Long;
        case 'z':
            return Length::Size;
        case 'j':
            return Length::Max;
        case 't':
            return Length::Pointer;
        case 'L':
            return Length::LongDouble;
        default:
            return Length::LongLong;
    }
}

void addFlag(Conversion& conversion, char flag)
{
    const std::size_t used = strlen(conversion.flags);
    if (strchr(conversion.flags, flag) == nullptr && used + 1 < sizeof conversion.flags)
        conversion.flags[used] = flag;
}

/// Reads what stands behind a '%'. @return false when it is not known here
bool readConversion(const char*& at, Arguments& arguments, Conversion& out)
{
    if (*at == 's' || *at == 'd') {  // most of them
        out.type = *at++;
        return true;
    }
    for (; *at != '\0' && strchr("-+ #0", *at) != nullptr; at++)
        addFlag(out, *at);
    out.width = readNumber(at, arguments);
    if (*at == '$')
        return false;
    if (out.width < 0) {
        addFlag(out, '-');
        out.width = -out.width;
    }
    if (*at == '.') {
        at++;
        out.precision = readNumber(at, arguments);
    }
    out.length = readLength(at);
    out.type = *at;
    if (out.type == '\0' || strchr("diuoxXcsaAeEfFgGpm", out.type) == nullptr)
        return false;
    at++;
    const bool wide = out.length == Length::Long && (out.type == 's' || out.type == 'c');
    return !wide;
}

/// Formats one number with the C library.
template <typename Value>
void writeNumber(Record& record, const Conversion& conversion, const char* length, Value value)
{
    char format[24];
    char text[512];
    const int width = conversion.width < 256 ? conversion.width : 256;
    const int precision = conversion.precision < 100 ? conversion.precision : 100;
    snprintf(format, sizeof format, "%%%s*.*%s%c", conversion.flags, length, conversion.type);
    // A negative precision counts as none.
    const int size = snprintf(text, sizeof text, format, width, precision, value);
    if (size > 0)
        record.escaped({text, strnlen(text, sizeof text - 1)});
}

/// The plain "%d", which most messages have.
void writeDecimal(Record& record, int value)
{
    char text[16];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    record.trusted({text, static_cast<std::size_t>(end - text)});
}

bool isPlain(const Conversion& c)
{
    return c.type == 'd' && c.flags[0] == '\0' && c.width == 0 && c.precision < 0;
}

void writeInteger(Record& record, const Conversion& c, Arguments& arguments)
{
    switch (c.length) {
        case Length::Char:
            return writeNumber(record, c, "hh", va_arg(arguments.list, int));
        case Length::Short:
            return writeNumber(record, c, "h", va_arg(arguments.list, int));
        case Length::Long:
            return writeNumber(record, c, "l", va_arg(arguments.list, long));
        case Length::LongLong:
        case Length::LongDouble:
            return writeNumber(record, c, "ll", va_arg(arguments.list, long long));
        case Length::Size:
            return writeNumber(record, c, "z", va_arg(arguments.list, std::size_t));
        case Length::Max:
            return writeNumber(record, c, "j", va_arg(arguments.list, std::intmax_t));
        case Length::Pointer:
            return writeNumber(record, c, "t", va_arg(arguments.list, std::ptrdiff_t));
        case Length::None:
            if (isPlain(c))
                return writeDecimal(record, va_arg(arguments.list, int));
            return writeNumber(record, c, "", va_arg(arguments.list, int));
    }
}

void writeFloat(Record& record, const Conversion& c, Arguments& arguments)
{
    if (c.length == Length::LongDouble)
        writeNumber(record, c, "L", va_arg(arguments.list, long double));
    else
        writeNumber(record, c, "", va_arg(arguments.list, double));
}

void writeValue(Record& record, std::string_view text, Privacy privacy)
{
    const std::size_t query = text.find('?');
    switch (privacy) {
        case Privacy::Public:
            record.escaped(text);
            return;
        case Privacy::Hidden:
            record.hidden(text.size());
            return;
        case Privacy::Url:
            record.escaped(text.substr(0, query == std::string_view::npos ? query : query + 1));
            if (query != std::string_view::npos)
                record.hidden(text.size() - query - 1);
            return;
    }
}

void writeText(Record& record, const Conversion& c, const char* value, Privacy privacy)
{
    const char* const shown = value != nullptr ? value : "(null)";
    std::size_t most = privacy == Privacy::Hidden ? kMeasured + 1 : SIZE_MAX;
    if (c.precision >= 0)
        most = std::min(most, static_cast<std::size_t>(c.precision));
    const std::size_t size = strnlen(shown, most);
    const auto width = static_cast<std::size_t>(c.width);
    const std::size_t padding = width > size ? width - size : 0;
    const bool left = strchr(c.flags, '-') != nullptr;
    if (!left)
        record.blanks(padding);
    writeValue(record, {shown, size}, value != nullptr ? privacy : Privacy::Public);
    if (left)
        record.blanks(padding);
}

class Writer {
public:
    Writer(Record& record, const FormatOptions& options, const char* format)
        : m_record(record),
          m_options(options),
          m_classes(format),
          m_names(options.fields ? format : ""),
          m_originLeft(
              std::string_view(format).substr(0, kOriginFormat.size()) == kOriginFormat ? 3 : 0)
    {
    }

    Parts write(const char* at, Arguments& arguments)
    {
        while (*at != '\0') {
            if (*at != '%') {
                at += literal(at);
            } else if (at[1] == '%') {
                m_record.trusted("%");
                at += 2;
            } else {
                const char* const start = at++;
                Conversion conversion;
                if (!readConversion(at, arguments, conversion)) {
                    // The arguments are out of step from here on.
                    m_record.escaped(start);
                    break;
                }
                const std::size_t begin = m_record.line().size();
                write(conversion, arguments);
                noteField(begin);
            }
        }
        return m_parts;
    }

private:
    /// Writes what stands before the next conversion. @return its length
    std::size_t literal(const char* at)
    {
        const std::size_t plain = strcspn(at, "%\033\n");
        if (plain > 0) {
            m_record.escaped({at, plain});
            return plain;
        }
        for (const std::string_view colour : kColours) {
            if (strncmp(at, colour.data(), colour.size()) == 0) {
                if (m_options.colours)
                    m_record.colour(colour);
                return colour.size();
            }
        }
        const bool closing = *at == '\n' && (at[1] == '\0' || kColourEnd == at + 1);
        if (!closing)
            m_record.escaped({at, 1});
        return 1;
    }

    void write(const Conversion& c, Arguments& arguments)
    {
        const Privacy classified = m_classes.next();
        const Privacy privacy = m_options.showPrivate ? Privacy::Public : classified;
        if (c.type == 's') {
            const char* const value = va_arg(arguments.list, const char*);
            noteOrigin(value, 0);
            writeText(m_record, c, value, privacy);
        } else if (c.type == 'c') {
            const char character = static_cast<char>(va_arg(arguments.list, int));
            writeValue(m_record, {&character, 1}, privacy);
        } else if (c.type == 'm') {
            char text[128];
            writeText(m_record, c, strerror_r(errno, text, sizeof text), Privacy::Public);
        } else if (c.type == 'p') {
            writeNumber(m_record, c, "", va_arg(arguments.list, void*));
        } else if (strchr("aAeEfFgG", c.type) != nullptr) {
            writeFloat(m_record, c, arguments);
        } else if (c.type == 'd' && m_originLeft == 1) {
            const int line = va_arg(arguments.list, int);
            noteOrigin(nullptr, line);
            writeDecimal(m_record, line);
        } else {
            writeInteger(m_record, c, arguments);
        }
    }

    void noteField(std::size_t begin)
    {
        const std::string_view name = m_names.next();
        if (!name.empty() && m_parts.fieldCount < kMostFields)
            m_parts.fields[m_parts.fieldCount++] = {name, begin, m_record.line().size()};
    }

    /// The first three conversions of a message of the service say where it comes from.
    void noteOrigin(const char* text, int line)
    {
        if (m_originLeft == 3)
            m_parts.origin.file = text;
        else if (m_originLeft == 2)
            m_parts.origin.function = text;
        else if (m_originLeft == 1)
            m_parts.origin.line = line;
        if (m_originLeft > 0)
            m_originLeft--;
    }

    Record& m_record;
    const FormatOptions& m_options;
    Classification m_classes;
    FieldNames m_names;
    Parts m_parts;
    int m_originLeft;
};

}  // namespace

Parts writeMessage(Record& record, const FormatOptions& options, const char* format,
                   va_list arguments)
{
    Arguments own;
    va_copy(own.list, arguments);
    const Parts parts = Writer(record, options, format).write(format, own);
    va_end(own.list);
    return parts;
}

}  // namespace logging
