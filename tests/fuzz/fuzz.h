// fuzz.h - declarations that all fuzz targets share. A target is one function. libFuzzer calls it with
// generated inputs, the ordinary test run with the files of the corpus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/// The target. Ends the process when a property does not hold.
/// @return 0
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Checks a property that holds for every input.
#define FUZZ_REQUIRE(condition)                                                                 \
    do {                                                                                        \
        if (!(condition)) {                                                                     \
            std::fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                       \
        }                                                                                       \
    } while (false)

namespace fuzz {

inline std::string text(const std::uint8_t* data, std::size_t size)
{
    return std::string(reinterpret_cast<const char*>(data), size);
}

/// Takes the part before the first NUL from an input, for targets with several arguments.
inline std::string cut(std::string& rest)
{
    const std::size_t end = rest.find('\0');
    const std::string first = rest.substr(0, end);
    rest = end == std::string::npos ? "" : rest.substr(end + 1);
    return first;
}

}  // namespace fuzz
