// log_fields.cpp - the values that are fields of the journal as well.
#include "log_fields.h"

#include "log_private.h"

namespace logging {

namespace {

struct Entry {
    std::string_view format;
    std::string_view names;
};

#define FIELDS(format, names) {format, names},
constexpr Entry kMessages[] = {
#include "log_fields.inc"
};
#undef FIELDS

}  // namespace

FieldNames::FieldNames(std::string_view format)
{
    m_origin = format.substr(0, kOriginFormat.size()) == kOriginFormat ? 3 : 0;
    const std::string_view bare = bareMessage(format);
    for (const Entry& entry : kMessages) {
        if (entry.format == bare)
            m_names = entry.names;
    }
}

std::string_view FieldNames::next()
{
    if (m_origin > 0) {
        m_origin--;
        return {};
    }
    const std::size_t end = m_names.find(' ');
    const std::string_view name = m_names.substr(0, end);
    m_names.remove_prefix(end == std::string_view::npos ? m_names.size() : end + 1);
    return name == "-" ? std::string_view() : name;
}

}  // namespace logging
