// log_record.cpp - one log record while it is written.
#include "log_record.h"

#include <glib.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace logging {

namespace {

/// Room for the note of the cut bytes, closing colours and the last byte.
constexpr std::size_t kReserve = 96;

/// Writes the escape of a byte that may not appear in a line.
std::size_t writeEscape(unsigned char byte, char* out, std::size_t size)
{
    switch (byte) {
        case '\n':
            return static_cast<std::size_t>(snprintf(out, size, "\\n"));
        case '\r':
            return static_cast<std::size_t>(snprintf(out, size, "\\r"));
        case '\t':
            return static_cast<std::size_t>(snprintf(out, size, "\\t"));
        default:
            return static_cast<std::size_t>(snprintf(out, size, "\\x%02x", byte));
    }
}

/// Number of printable ASCII characters at the beginning of the text.
std::size_t plainRun(std::string_view text)
{
    std::size_t length = 0;
    while (length < text.size() && text[length] >= 0x20 && text[length] < 0x7f)
        length++;
    return length;
}

/// Length of the UTF-8 character beyond ASCII at the beginning of the text.
/// @return 0 when there is none, or it may not appear in a line
std::size_t characterLength(std::string_view text)
{
    const gunichar character =
        g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
    // Both error values of GLib are above 0x10ffff. U+0080 to U+009F are control characters to a terminal.
    if (character > 0x10ffff || character < 0xa0)
        return 0;
    return static_cast<std::size_t>(g_unichar_to_utf8(character, nullptr));
}

}  // namespace

std::size_t Record::room() const
{
    // Takes nothing after the first cut: a gap in the middle would mislead the reader.
    return m_cut > 0 ? 0 : m_bytes.size() - kReserve - m_used;
}

void Record::piece(std::string_view bytes)
{
    if (bytes.size() > room())
        m_cut += bytes.size();
    else
        run(bytes);
}

void Record::run(std::string_view bytes)
{
    const std::size_t taken = std::min(bytes.size(), room());
    memcpy(&m_bytes[m_used], bytes.data(), taken);
    m_used += taken;
    m_cut += bytes.size() - taken;
}

void Record::trusted(std::string_view text)
{
    run(text);
}

void Record::escaped(std::string_view text)
{
    while (!text.empty()) {
        std::size_t length = plainRun(text);
        if (length > 0 || m_cut > 0) {
            length = m_cut > 0 ? text.size() : length;
            run(text.substr(0, length));
        } else if ((length = characterLength(text)) > 0) {
            piece(text.substr(0, length));
        } else {
            char escape[8];
            length = 1;
            piece(
                {escape, writeEscape(static_cast<unsigned char>(text[0]), escape, sizeof escape)});
        }
        text.remove_prefix(length);
    }
}

void Record::colour(std::string_view code)
{
    if (m_used + code.size() + kReserve / 2 > m_bytes.size())
        return;
    memcpy(&m_bytes[m_used], code.data(), code.size());
    m_used += code.size();
}

void Record::hidden(std::size_t size)
{
    char digits[24];
    const char* const end =
        std::to_chars(digits, digits + sizeof digits, std::min(size, kMeasured)).ptr;
    run(size > kMeasured ? "<private:over " : "<private:");
    run({digits, static_cast<std::size_t>(end - digits)});
    run(" bytes>");
}

void Record::finish(char last)
{
    if (m_cut > 0) {
        const int length =
            snprintf(&m_bytes[m_used], m_bytes.size() - m_used - 1, " <%zu bytes cut>", m_cut);
        m_used += static_cast<std::size_t>(length);
    }
    m_bytes[m_used++] = last;
}

}  // namespace logging
