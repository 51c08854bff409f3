// log_fields.h - the values that are fields of the journal as well.
#pragma once

#include <cstddef>
#include <string_view>

namespace logging {

/// A value in a record and the name of its field.
struct Field {
    std::string_view name;
    std::size_t begin;  ///< first byte of the value in the record
    std::size_t end;
};

/// The largest number of fields of one message.
constexpr std::size_t kMostFields = 11;

/// Iterates over the field names of one message, one for each conversion.
class FieldNames {
public:
    /// @param format the whole format, with or without the origin and the colours; must outlive
    ///   this object
    explicit FieldNames(std::string_view format);

    /// @return the field of the next conversion; empty when it has none
    std::string_view next();

private:
    std::string_view m_names;
    std::size_t m_origin = 0;
};

}  // namespace logging
