// ReplyText.cpp - makes a server's body fit for a reply on the bus.
#include "ReplyText.h"

#include <glib.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr std::size_t MESSAGE_BYTES = std::size_t{32} * 1024 * 1024;  // header and body
constexpr std::size_t LONGEST_NAME = 255;     // longest bus name, D-Bus specification
constexpr std::size_t REPLACEMENT_BYTES = 3;  // U+FFFD in UTF-8

constexpr std::size_t Aligned(std::size_t uBytes)
{
    return (uBytes + 7) & ~std::size_t{7};
}

// @return length of the beginning, in whole words, that is ASCII without NUL. Most bodies are ASCII, and
//   GLib looks at one byte at a time.
std::size_t PlainLength(const std::string& strText)
{
    constexpr std::uint64_t ONES = 0x0101010101010101;
    constexpr std::uint64_t HIGH_BITS = 0x8080808080808080;
    std::size_t uAt = 0;
    for (; uAt + sizeof(std::uint64_t) <= strText.size(); uAt += sizeof(std::uint64_t)) {
        std::uint64_t uWord = 0;
        std::memcpy(&uWord, strText.data() + uAt, sizeof uWord);
        // The subtraction sets the high bit of a byte that is 0.
        if (((uWord | (uWord - ONES)) & HIGH_BITS) != 0) {
            break;
        }
    }
    return uAt;
}

// @return length of the text after each bad byte was replaced. Counted first: a hostile body triples.
std::size_t ValidLength(const std::string& strText)
{
    std::size_t uBad = 0;
    const char* pEnd = strText.data() + strText.size();
    const char* pBad = strText.data() + PlainLength(strText);
    while (!g_utf8_validate_len(pBad, static_cast<gsize>(pEnd - pBad), &pBad)) {
        ++uBad;
        ++pBad;
    }
    return strText.size() + uBad * (REPLACEMENT_BYTES - 1);
}

}  // namespace

std::size_t ReplyTextLimit(const char* szDestination)
{
    // Header: a fixed part and the length of the fields, 16 bytes; then the fields, each aligned to 8 bytes:
    // reply serial (8), signature (8) and destination (4 + length + name + NUL). Body: the number, the text's
    // length, the text and its NUL.
    const std::size_t uName = szDestination != nullptr ? std::strlen(szDestination) : LONGEST_NAME;
    const std::size_t uHeader = 16 + 8 + 8 + Aligned(4 + 4 + uName + 1);
    return MESSAGE_BYTES - uHeader - (4 + 4 + 1);
}

bool MakeReplyText(std::string& strText, std::size_t uLimit) noexcept
{
    const std::size_t uLength = ValidLength(strText);
    if (uLength > uLimit) {
        std::string().swap(strText);
        return false;
    }
    if (uLength != strText.size()) {
        const std::unique_ptr<char, decltype(&g_free)> szValid(
            g_utf8_make_valid(strText.data(), static_cast<gssize>(strText.size())), g_free);
        std::string().swap(strText);  // freed before the copy is made: both may be large
        try {
            strText.assign(szValid.get(), uLength);
        } catch (const std::bad_alloc&) {  // no exception may pass the C code of the caller
            std::string().swap(strText);
            return false;
        }
    }
    return true;
}
