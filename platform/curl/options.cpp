// options.cpp - the table of options, and the values that are refused before libcurl gets them.
#include "options.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

namespace MZCurl {
namespace {

enum class Kind {
    Ignored,
    Number,
    Size,
    Text,
    TextOrNone,
    Method,
    Body,
    List,
    Writer,
    SslContext,
    Pointer
};

struct Option {
    MZCURL_OPTION_TYPE id;
    Kind kind;
    CURLoption curl;  // ignored where the wrapper keeps the value itself
};

constexpr CURLoption kKept = CURLOPT_LASTENTRY;

constexpr std::string_view kLineBreakers("\r\n\0", 3);

constexpr Option kOptions[] = {
    {MZCURL_OPT_RESERVED_1, Kind::Ignored, kKept},
    {MZCURL_OPT_RESERVED_3, Kind::Ignored, kKept},
    {MZCURL_OPT_POST, Kind::Number, CURLOPT_POST},
    {MZCURL_OPT_HTTPGET, Kind::Number, CURLOPT_HTTPGET},
    {MZCURL_OPT_TIMEOUT, Kind::Number, CURLOPT_TIMEOUT},
    {MZCURL_OPT_CONNECTTIMEOUT, Kind::Number, CURLOPT_CONNECTTIMEOUT},
    {MZCURL_OPT_RESERVED_34, Kind::Ignored, kKept},
    {MZCURL_OPT_SSL_VERIFYHOST, Kind::Number, CURLOPT_SSL_VERIFYHOST},
    {MZCURL_OPT_SSL_VERIFYPEER, Kind::Number, CURLOPT_SSL_VERIFYPEER},
    {MZCURL_OPT_POSTFIELDSIZE, Kind::Size, CURLOPT_POSTFIELDSIZE_LARGE},
    {MZCURL_OPT_CUSTOMREQUEST, Kind::Method, CURLOPT_CUSTOMREQUEST},
    {MZCURL_OPT_URL, Kind::Text, CURLOPT_URL},
    {MZCURL_OPT_POSTFIELDS, Kind::Body, CURLOPT_POSTFIELDS},
    {MZCURL_OPT_CAINFO, Kind::Text, CURLOPT_CAINFO},
    // Not set when empty: libcurl would take "" for the name of a file, and every TLS transfer would fail.
    {MZCURL_OPT_SSLCERT, Kind::TextOrNone, CURLOPT_SSLCERT},
    {MZCURL_OPT_SSLCERTTYPE, Kind::TextOrNone, CURLOPT_SSLCERTTYPE},
    {MZCURL_OPT_SSLKEY, Kind::TextOrNone, CURLOPT_SSLKEY},
    {MZCURL_OPT_SSLKEYTYPE, Kind::TextOrNone, CURLOPT_SSLKEYTYPE},
    {MZCURL_OPT_HTTPHEADER, Kind::List, CURLOPT_HTTPHEADER},
    {MZCURL_OPT_WRITEFUNCTION, Kind::Writer, kKept},
    {MZCURL_OPT_SSL_CTX_FUNCTION, Kind::SslContext, kKept},
    {MZCURL_OPT_WRITEDATA, Kind::Pointer, kKept},
    {MZCURL_OPT_SSL_CTX_DATA, Kind::Pointer, kKept},
    {MZCURL_OPT_PRIVATE, Kind::Pointer, kKept},
};

/// @return the option; null, with the reason in lastError, when there is none or it is of another kind
const Option* find(Transfer& transfer, MZCURL_OPTION_TYPE id, std::initializer_list<Kind> kinds)
{
    const auto* const option = std::find_if(std::begin(kOptions), std::end(kOptions),
                                            [id](const Option& o) { return o.id == id; });
    if (option == std::end(kOptions)) {
        transfer.fail("There is no such option");
        return nullptr;
    }
    if (std::find(kinds.begin(), kinds.end(), option->kind) == kinds.end()) {
        transfer.fail("The option takes another type of value");
        return nullptr;
    }
    return option;
}

template <class Value>
bool apply(Transfer& transfer, CURLoption option, Value value)
{
    const CURLcode code = curl_easy_setopt(transfer.curl.get(), option, value);
    return code == CURLE_OK || transfer.fail(curl_easy_strerror(code));
}

/// Applies what a number implies besides its own option.
bool follow(Transfer& transfer, MZCURL_OPTION_TYPE id, long value)
{
    const bool on = value != 0;
    if (id == MZCURL_OPT_POST) {
        transfer.sendsBody = on;
    } else if (id == MZCURL_OPT_HTTPGET && on) {
        transfer.sendsBody = false;
    } else if (id == MZCURL_OPT_TIMEOUT) {
        transfer.timeout = std::chrono::seconds(value);
    } else if (id == MZCURL_OPT_SSL_VERIFYPEER) {
        return apply(transfer, CURLOPT_PROTOCOLS_STR, on ? "https" : "http,https");
    }
    return true;
}

bool isMethodName(const std::string& text)
{
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < '\x7f'; });
}

/// @return whether the URL has no host. libcurl would skip the third slash and take the path's first part for the host.
bool lacksHost(const std::string& url)
{
    for (const char* const start : {"http:///", "https:///"}) {
        if (url.rfind(start, 0) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool setNumber(Transfer& transfer, MZCURL_OPTION_TYPE id, long long value)
{
    const Option* const option = find(transfer, id, {Kind::Ignored, Kind::Number, Kind::Size});
    if (option == nullptr) {
        return false;
    }
    if (option->kind == Kind::Ignored) {
        return true;
    }
    if (option->kind == Kind::Size) {
        return apply(transfer, option->curl, static_cast<curl_off_t>(value));
    }
    const auto number = static_cast<long>(value);
    if (number != value) {
        return transfer.fail("The number is out of range");
    }
    return apply(transfer, option->curl, number) && follow(transfer, id, number);
}

bool setText(Transfer& transfer, MZCURL_OPTION_TYPE id, const std::string& value)
{
    const Option* const option =
        find(transfer, id, {Kind::Text, Kind::TextOrNone, Kind::Method, Kind::Body});
    if (option == nullptr) {
        return false;
    }
    if (option->kind == Kind::Body) {
        transfer.sendsBody = true;
        return apply(transfer, option->curl, value.data());
    }
    if (value.find('\0') != std::string::npos) {
        return transfer.fail("The text holds a NUL byte");
    }
    if (option->kind == Kind::Method) {
        if (!isMethodName(value)) {
            return transfer.fail("The text is not the name of a method");
        }
        transfer.namesMethod = true;
    }
    if (id == MZCURL_OPT_URL) {
        if (lacksHost(value)) {
            return transfer.fail("The URL names no host");
        }
        transfer.url = value;
    } else if (id == MZCURL_OPT_CAINFO) {
        transfer.caFile = value;
    }
    const bool none = option->kind == Kind::TextOrNone && value.empty();
    return apply(transfer, option->curl, none ? nullptr : value.c_str());
}

bool setList(Transfer& transfer, MZCURL_OPTION_TYPE id, const std::list<std::string>& value)
{
    const Option* const option = find(transfer, id, {Kind::List});
    if (option == nullptr) {
        return false;
    }
    for (const std::string& line : value) {
        if (line.find_first_of(kLineBreakers) != std::string::npos) {
            return transfer.fail("A header holds a CR, LF or NUL byte");
        }
    }
    Headers lines(value);
    if (!apply(transfer, option->curl, lines.list())) {
        return false;
    }
    transfer.headers = std::move(lines);
    return true;
}

bool setWriter(Transfer& transfer, MZCURL_OPTION_TYPE id, WriteCallback value)
{
    if (find(transfer, id, {Kind::Writer}) == nullptr) {
        return false;
    }
    transfer.write = value;
    return true;
}

bool setSslContext(Transfer& transfer, MZCURL_OPTION_TYPE id, SslContextCallback value)
{
    if (find(transfer, id, {Kind::SslContext}) == nullptr) {
        return false;
    }
    transfer.sslContext = value;
    return true;
}

bool setPointer(Transfer& transfer, MZCURL_OPTION_TYPE id, void* value)
{
    if (find(transfer, id, {Kind::Pointer}) == nullptr) {
        return false;
    }
    if (id == MZCURL_OPT_PRIVATE) {
        transfer.userPointer = value;
    } else if (id == MZCURL_OPT_SSL_CTX_DATA) {
        transfer.sslContextData = value;
    } else {
        transfer.writeData = value;
    }
    return true;
}

}  // namespace MZCurl
