// log_record.h - one log record under construction: a buffer of fixed size on the caller's stack. It
// allocates nothing and takes no lock, so that signal handlers may log.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace logging {

/// Largest size that is measured of a hidden text, so that a long one costs no time.
constexpr std::size_t kMeasured = std::size_t{64} * 1024;

/// Size of a whole record with its last byte. It is PIPE_BUF: a pipe takes such a write in one piece
/// or not at all.
constexpr std::size_t kRecordLimit = 4096;

class Record {
public:
    /// Adds text of the program itself, unchanged.
    void trusted(std::string_view text);
    /// Adds text from outside. Control characters and bytes that are no UTF-8 are escaped.
    void escaped(std::string_view text);
    /// Adds a colour code. It has room even after a cut.
    void colour(std::string_view code);
    /// Adds the placeholder of a hidden value.
    /// @param size above kMeasured the placeholder says "over 65536 bytes"
    void hidden(std::size_t size);

    /// Adds a note of the cut bytes, if any, and the last byte: a line break, or NUL, which makes text() a C text.
    /// Call it once.
    void finish(char last);

    /// @return the record so far; with its last byte after finish()
    std::string_view line() const { return {m_bytes.data(), m_used}; }
    /// @return the finished record without its last byte
    std::string_view text() const { return {m_bytes.data(), m_used - 1}; }

private:
    /// Adds all of the bytes, or none when they have no room.
    void piece(std::string_view bytes);
    /// Adds as many of the bytes as have room.
    void run(std::string_view bytes);
    std::size_t room() const;

    std::array<char, kRecordLimit> m_bytes;
    std::size_t m_used = 0;
    std::size_t m_cut = 0;
};

}  // namespace logging
