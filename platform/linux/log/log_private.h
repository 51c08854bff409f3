// log_private.h - which arguments of which messages are private.
#pragma once

#include <string_view>

namespace logging {

/// What opens a message of the service: its file, function and line, all public.
constexpr std::string_view kOriginFormat = "%s: %s(%d) > ";

/// The colour codes that a format may hold.
constexpr std::string_view kColourInfo = "\033[0;33m";
constexpr std::string_view kColourError = "\033[0;31m";
constexpr std::string_view kColourEnd = "\033[0;m";

enum class Privacy {
    Public,
    Hidden,  ///< a token, an id, a check value, a body: only its size is shown
    Url,     ///< hidden behind the first question mark
};

/// A message's format as the tables have it: without origin, colours and closing line break.
std::string_view bareMessage(std::string_view format);

/// One message's classification: asked for each conversion of its format in turn.
class Classification {
public:
    /// @param format the whole format, with or without the origin and the colours; not null, and
    ///   kept
    explicit Classification(std::string_view format);

    /// How the next conversion is to be treated. The texts of a message that is not in the table
    /// are hidden.
    Privacy next();

private:
    std::string_view m_rules;
    std::size_t m_next = 0;
    std::size_t m_origin = 0;
    bool m_known = false;
};

}  // namespace logging
