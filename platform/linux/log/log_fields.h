// log_fields.h - which values of which messages have a field of their own in the journal.
#pragma once

#include <cstddef>
#include <string_view>

namespace logging {

/// A value in a record, and the field that it has.
struct Field {
    std::string_view name;
    std::size_t begin;  ///< its bytes in the record
    std::size_t end;
};

/// The most that one message has.
constexpr std::size_t kMostFields = 11;

/// One message's field names: asked for each conversion of its format in turn.
class FieldNames {
public:
    /// @param format the whole format, with or without the origin and the colours; kept
    explicit FieldNames(std::string_view format);

    /// The name for the next conversion, empty where there is none.
    std::string_view next();

private:
    std::string_view m_names;
    std::size_t m_origin = 0;
};

}  // namespace logging
