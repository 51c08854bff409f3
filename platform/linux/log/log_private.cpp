// log_private.cpp - the private arguments of each message.
#include "log_private.h"

namespace logging {

namespace {

struct Entry {
    std::string_view format;
    std::string_view rules;
};

#define MESSAGE(format, rules) {format, rules},
constexpr Entry kMessages[] = {
#include "log_private.inc"
};
#undef MESSAGE

bool dropPrefix(std::string_view& text, std::string_view prefix)
{
    if (text.substr(0, prefix.size()) != prefix)
        return false;
    text.remove_prefix(prefix.size());
    return true;
}

void dropSuffix(std::string_view& text, std::string_view suffix)
{
    if (text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix)
        text.remove_suffix(suffix.size());
}

}  // namespace

std::string_view bareMessage(std::string_view text)
{
    dropPrefix(text, kOriginFormat);
    if (!dropPrefix(text, kColourInfo))
        dropPrefix(text, kColourError);
    dropSuffix(text, "\n");
    dropSuffix(text, kColourEnd);
    dropSuffix(text, "\n");
    return text;
}

Classification::Classification(std::string_view format)
{
    // The three conversions of the origin come first.
    if (format.substr(0, kOriginFormat.size()) == kOriginFormat)
        m_origin = 3;
    const std::string_view bare = bareMessage(format);
    for (const Entry& entry : kMessages) {
        if (entry.format == bare) {
            m_rules = entry.rules;
            m_known = true;
            return;
        }
    }
}

Privacy Classification::next()
{
    if (m_origin > 0) {
        m_origin--;
        return Privacy::Public;
    }
    if (!m_known || m_next >= m_rules.size())
        return Privacy::Hidden;
    switch (m_rules[m_next++]) {
        case 'x':
            return Privacy::Hidden;
        case 'u':
            return Privacy::Url;
        default:
            return Privacy::Public;
    }
}

}  // namespace logging
