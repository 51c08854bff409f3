// log_format.cpp - writes a printf format and its arguments into a record.
#include "log_format.h"

#include "log_private.h"

#include <sys/types.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace logging {

namespace {

constexpr std::string_view kColours[] = {kColourInfo, kColourError, kColourEnd};

/// A va_list may be an array, which cannot be passed by reference; this can.
struct Arguments {
    va_list list;
};

enum class Length { None, Long, LongLong, Size };

struct Conversion {
    Length length = Length::None;
    char type = '\0';
};

Length readLength(const char*& at)
{
    if (*at == 'z') {
        at++;
        return Length::Size;
    }
    if (*at != 'l')
        return Length::None;
    at++;
    if (*at != 'l')
        return Length::Long;
    at++;
    return Length::LongLong;
}

/// Reads a conversion from behind its '%'.
/// @return false for an unknown one
bool readConversion(const char*& at, Conversion& out)
{
    out.length = readLength(at);
    out.type = *at;
    const char* const types = out.length == Length::None ? "sduxp" : "dux";
    if (out.type == '\0' || strchr(types, out.type) == nullptr)
        return false;
    at++;
    return true;
}

template <typename Value>
void writeNumber(Record& record, Value value, int base)
{
    char text[24];
    const auto end = std::to_chars(text, text + sizeof text, value, base).ptr;
    record.trusted({text, static_cast<std::size_t>(end - text)});
}

void writeSigned(Record& record, Length length, Arguments& arguments)
{
    switch (length) {
        case Length::None:
            return writeNumber(record, va_arg(arguments.list, int), 10);
        case Length::Long:
            return writeNumber(record, va_arg(arguments.list, long), 10);
        case Length::LongLong:
            return writeNumber(record, va_arg(arguments.list, long long), 10);
        case Length::Size:
            return writeNumber(record, va_arg(arguments.list, ssize_t), 10);
    }
}

void writeUnsigned(Record& record, Length length, int base, Arguments& arguments)
{
    switch (length) {
        case Length::None:
            return writeNumber(record, va_arg(arguments.list, unsigned), base);
        case Length::Long:
            return writeNumber(record, va_arg(arguments.list, unsigned long), base);
        case Length::LongLong:
            return writeNumber(record, va_arg(arguments.list, unsigned long long), base);
        case Length::Size:
            return writeNumber(record, va_arg(arguments.list, std::size_t), base);
    }
}

void writePointer(Record& record, const void* value)
{
    char text[24];
    const int size = snprintf(text, sizeof text, "%p", value);
    record.trusted({text, static_cast<std::size_t>(size)});
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

void writeText(Record& record, const char* value, Privacy privacy)
{
    if (value == nullptr)
        return record.trusted("(null)");
    const std::size_t most = privacy == Privacy::Hidden ? kMeasured + 1 : SIZE_MAX;
    writeValue(record, {value, strnlen(value, most)}, privacy);
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
                if (!readConversion(at, conversion)) {
                    // The size of its argument is unknown, so none of the later ones can be read.
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
    /// Writes the text, colour or line break at this place, up to the next '%' at most.
    /// @return the number of characters taken
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
            writeText(m_record, value, privacy);
        } else if (c.type == 'p') {
            writePointer(m_record, va_arg(arguments.list, const void*));
        } else if (c.type == 'd' && m_originLeft == 1) {
            const int line = va_arg(arguments.list, int);
            noteOrigin(nullptr, line);
            writeNumber(m_record, line, 10);
        } else if (c.type == 'd') {
            writeSigned(m_record, c.length, arguments);
        } else {
            writeUnsigned(m_record, c.length, c.type == 'x' ? 16 : 10, arguments);
        }
    }

    void noteField(std::size_t begin)
    {
        const std::string_view name = m_names.next();
        if (!name.empty() && m_parts.fieldCount < kMostFields)
            m_parts.fields[m_parts.fieldCount++] = {name, begin, m_record.line().size()};
    }

    /// Keeps the first three values of a message of the service: file, function, line.
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
