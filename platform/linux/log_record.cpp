// log_record.cpp - one log record while it is written.
#include "log_record.h"

#include <glib.h>

#include <cstdio>
#include <cstring>

namespace logging {

namespace {

/// Kept free for the note of what was cut, closing colours and the line break.
constexpr std::size_t kReserve = 96;

/// How a byte that may not stand in a line is written.
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

/// Length of the character that the text begins with, when it may stand in a line as it is.
std::size_t plainLength(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80)
        return first >= 0x20 && first != 0x7f ? 1 : 0;
    const gunichar character =
        g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
    // Both error values are beyond Unicode. U+0080 to U+009F are control characters to a terminal.
    if (character > 0x10ffff || character < 0xa0)
        return 0;
    return static_cast<std::size_t>(g_unichar_to_utf8(character, nullptr));
}

}  // namespace

void Record::piece(std::string_view bytes)
{
    // After the first piece that has no room nothing more is taken: a gap would mislead.
    if (m_cut > 0 || m_used + bytes.size() > m_bytes.size() - kReserve) {
        m_cut += bytes.size();
        return;
    }
    memcpy(&m_bytes[m_used], bytes.data(), bytes.size());
    m_used += bytes.size();
}

void Record::trusted(std::string_view text)
{
    for (const char c : text)
        piece({&c, 1});
}

void Record::escaped(std::string_view text)
{
    while (!text.empty()) {
        if (m_cut > 0) {
            m_cut += text.size();
            return;
        }
        std::size_t length = plainLength(text);
        if (length > 0) {
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

void Record::blanks(std::size_t count)
{
    for (std::size_t i = 0; i < count && m_cut == 0; i++)
        piece(" ");
}

void Record::hidden(std::size_t size)
{
    char note[48];
    const int length = snprintf(note, sizeof note, "<private:%zu bytes>", size);
    piece({note, static_cast<std::size_t>(length)});
}

void Record::finish()
{
    if (m_cut > 0) {
        const int length =
            snprintf(&m_bytes[m_used], m_bytes.size() - m_used - 1, " <%zu bytes cut>", m_cut);
        m_used += static_cast<std::size_t>(length);
    }
    m_bytes[m_used++] = '\n';
}

}  // namespace logging
