// log_private.h - the private arguments of each message.
#pragma once

#include <string_view>

namespace logging {

/// Beginning of each message of the service: file, function and line, all public.
constexpr std::string_view kOriginFormat = "%s: %s(%d) > ";

/// The colour codes that a format may hold.
constexpr std::string_view kColourInfo = "\033[0;33m";
constexpr std::string_view kColourError = "\033[0;31m";
constexpr std::string_view kColourEnd = "\033[0;m";

enum class Privacy {
    Public,
    Hidden,  ///< a token, an id, a check value, a body: only its size is shown
    Url,     ///< the text after the first '?' is hidden
};

/// Removes origin, colours and closing line break from a format, as the tables do.
std::string_view bareMessage(std::string_view format);

/// Iterates over the privacy of one message's arguments, one for each conversion.
class Classification {
public:
    /// @param format the whole format, with or without the origin and the colours; not null; must
    ///   outlive this object
    explicit Classification(std::string_view format);

    /// @return the privacy of the next conversion; Hidden for a message without a row in the table
    Privacy next();

private:
    std::string_view m_rules;
    std::size_t m_next = 0;
    std::size_t m_origin = 0;
    bool m_known = false;
};

}  // namespace logging
