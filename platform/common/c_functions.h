// c_functions.h - helpers for the C functions of a backend: no exception leaves them, and the caller owns the texts that they
// return.
#pragma once

#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>

namespace seam {

/// Runs the body of a platform function.
/// @return the body's result, or `failure` when the body throws (it has no memory)
template <typename Result, typename Body>
Result guarded(Result failure, Body body) noexcept
{
    try {
        return body();
    } catch (const std::exception&) {
        return failure;
    }
}

/// @return a copy that the caller frees with free(); null for nullopt
inline char* heapCopy(const std::optional<std::string>& value)
{
    return value ? strdup(value->c_str()) : nullptr;
}

/// The same; null for null
inline char* heapCopy(const std::shared_ptr<const std::string>& value)
{
    return value != nullptr ? strdup(value->c_str()) : nullptr;
}

/// Gives the caller a copy of a text. *out changes on success only.
/// @return 0 or -1
template <typename Text>
int give(const Text& value, char** out)
{
    char* const copy = heapCopy(value);
    if (copy == nullptr)
        return -1;
    *out = copy;
    return 0;
}

}  // namespace seam
