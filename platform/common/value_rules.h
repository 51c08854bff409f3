// platform/common/value_rules.h - the rules for values that the seam's headers promise, shared by all
// backends.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace valuerules {

/// True if the text holds a control character: a byte below 0x20, or 0x7f. It could add a header
/// line to a request or a line to the log.
inline bool holdsControl(std::string_view text)
{
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f)
            return true;
    }
    return false;
}

/// Reads a decimal number of 32 bits. Blanks around it are refused.
/// @return nullopt for any other text
inline std::optional<int> wholeNumber(std::string_view text)
{
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

/// Reads `count` unsigned numbers of 32 bits, decimal or hexadecimal ("0x"), separated by blanks or
/// commas.
/// @return false for any other text; some of the numbers may be set then
inline bool numbers32(std::string_view text, std::uint32_t* numbers, std::size_t count)
{
    for (std::size_t i = 0; i < count; i++) {
        text.remove_prefix(std::min(text.find_first_not_of(i == 0 ? " " : " ,"), text.size()));
        const bool hex = text.substr(0, 2) == "0x";
        text.remove_prefix(hex ? 2 : 0);
        const auto [end, error] =
            std::from_chars(text.data(), text.data() + text.size(), numbers[i], hex ? 16 : 10);
        if (error != std::errc())
            return false;
        text.remove_prefix(static_cast<std::size_t>(end - text.data()));
        if (i + 1 < count && (text.empty() || (text.front() != ' ' && text.front() != ',')))
            return false;
    }
    return text.find_first_not_of(' ') == std::string_view::npos;
}

/// True for a host name or an IPv4 address, with or without ":port". Scheme, path, user and blanks
/// are refused, since the text becomes the authority of a URL unchanged.
inline bool isBareHost(std::string_view text)
{
    const std::size_t colon = text.find(':');
    const std::string_view host = text.substr(0, colon);
    if (host.empty() || host.size() > 253 || host.front() == '-')
        return false;
    char last = '.';
    for (const char c : host) {
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        const bool digit = c >= '0' && c <= '9';
        if (!letter && !digit && c != '-' && c != '_' && (c != '.' || last == '.'))
            return false;
        last = c;
    }
    if (colon == std::string_view::npos)
        return true;
    const std::string_view port = text.substr(colon + 1);
    const std::optional<int> number = wholeNumber(port);
    return number && *number > 0 && *number < 65536 && port.front() != '0';
}

}  // namespace valuerules
