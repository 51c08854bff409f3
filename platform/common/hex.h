// hex.h - bytes as text.
#pragma once

#include <string>

/// Two lower-case digits a byte. @param bytes a string or vector of bytes
template <typename Bytes>
std::string hex(const Bytes& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const auto one : bytes) {
        const auto byte = static_cast<unsigned char>(one);
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}
