// c_functions.h - what the C functions of every backend share: nothing is thrown through them, and the texts that they hand
// out belong to the caller.
#pragma once

#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>

namespace seam {

/// Runs the body of a platform function. @return its result, or the failure when it throws, which
/// is when there is no memory
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

/// Hands a text out, touching *out on success only. @return 0 or -1
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
