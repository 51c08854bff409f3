// log_record.h - one log record while it is written: a buffer of fixed size on the caller's stack.
// Nothing here allocates or locks, so that a record can be written wherever code runs.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace logging {

/// How far a hidden text is read to tell its size: what is not shown costs nothing in proportion.
constexpr std::size_t kMeasured = std::size_t{64} * 1024;

/// A whole record, its line break included. As a line it fits into PIPE_BUF: a pipe takes it in one
/// piece, or not at all.
constexpr std::size_t kRecordLimit = 4096;

class Record {
public:
    /// Adds text as it stands: what the program itself says.
    void trusted(std::string_view text);
    /// Adds text from elsewhere, with control characters, and bytes that are no UTF-8, escaped.
    void escaped(std::string_view text);
    /// Adds a colour code, which has room even when the text was cut.
    void colour(std::string_view code);
    /// Adds what stands for a value that is hidden. @param size more than kMeasured is told as that
    void hidden(std::size_t size);

    /// Notes what was cut off, if anything was, and ends the line. Once.
    void finish();

    /// With the line break. @return what was written so far
    std::string_view line() const { return {m_bytes.data(), m_used}; }
    /// Without the line break.
    std::string_view text() const { return {m_bytes.data(), m_used - 1}; }

private:
    /// Adds bytes that belong together, or none of them.
    void piece(std::string_view bytes);
    /// Adds as many as there is room for.
    void run(std::string_view bytes);
    std::size_t room() const;

    std::array<char, kRecordLimit> m_bytes;
    std::size_t m_used = 0;
    std::size_t m_cut = 0;
};

}  // namespace logging
