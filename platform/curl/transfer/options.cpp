// options.cpp - the table of options, and the values that are refused.
#include "options.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <variant>

namespace MZCurl {
namespace {

struct Ignored {};
struct Post {};
struct Get {};
struct Size {};
struct Body {};
struct Lines {};

/// libcurl counts milliseconds in an int.
struct Seconds {
    long Options::*field;
};

/// Where the value of an option is kept, or what it does.
using Field =
    std::variant<Ignored, Post, Get, Size, Seconds, long Options::*, Body, std::string Options::*,
                 Lines, WriteCallback Options::*, SslContextCallback Options::*, void * Options::*>;

struct Option {
    MZCURL_OPTION_TYPE id;
    Field field;
};

constexpr long kMostSeconds = std::numeric_limits<int>::max() / 1000;

// libcurl takes no longer texts.
constexpr std::size_t kMostText = 8000000;

const Option kOptions[] = {
    {MZCURL_OPT_RESERVED_1, Ignored{}},
    {MZCURL_OPT_RESERVED_3, Ignored{}},
    {MZCURL_OPT_POST, Post{}},
    {MZCURL_OPT_HTTPGET, Get{}},
    {MZCURL_OPT_TIMEOUT, Seconds{&Options::timeout}},
    {MZCURL_OPT_CONNECTTIMEOUT, Seconds{&Options::connectTimeout}},
    {MZCURL_OPT_RESERVED_34, Ignored{}},
    {MZCURL_OPT_SSL_VERIFYHOST, &Options::verifyHost},
    {MZCURL_OPT_SSL_VERIFYPEER, &Options::verifyPeer},
    {MZCURL_OPT_POSTFIELDSIZE, Size{}},
    {MZCURL_OPT_CUSTOMREQUEST, &Options::method},
    {MZCURL_OPT_URL, &Options::url},
    {MZCURL_OPT_POSTFIELDS, Body{}},
    {MZCURL_OPT_CAINFO, &Options::caFile},
    {MZCURL_OPT_SSLCERT, &Options::certificate},
    {MZCURL_OPT_SSLCERTTYPE, &Options::certificateType},
    {MZCURL_OPT_SSLKEY, &Options::key},
    {MZCURL_OPT_SSLKEYTYPE, &Options::keyType},
    {MZCURL_OPT_HTTPHEADER, Lines{}},
    {MZCURL_OPT_WRITEFUNCTION, &Options::write},
    {MZCURL_OPT_SSL_CTX_FUNCTION, &Options::sslContext},
    {MZCURL_OPT_WRITEDATA, &Options::writeData},
    {MZCURL_OPT_SSL_CTX_DATA, &Options::sslContextData},
    {MZCURL_OPT_PRIVATE, &Options::userPointer},
};

const Option* find(MZCURL_OPTION_TYPE id)
{
    const auto* const option = std::find_if(std::begin(kOptions), std::end(kOptions),
                                            [id](const Option& o) { return o.id == id; });
    return option != std::end(kOptions) ? option : nullptr;
}

/// @return why an option does not take the type of a value
const char* mismatch(const Option* option)
{
    return option == nullptr ? "There is no such option" : "The option takes another type of value";
}

const char* badValue()
{
    return curl_easy_strerror(CURLE_BAD_FUNCTION_ARGUMENT);
}

template <class Type>
const char* store(Options& options, MZCURL_OPTION_TYPE id, Type value)
{
    const Option* const option = find(id);
    const auto* const field =
        option != nullptr ? std::get_if<Type Options::*>(&option->field) : nullptr;
    if (field == nullptr) {
        return mismatch(option);
    }
    options.*(*field) = value;
    return nullptr;
}

const char* setSeconds(Options& options, const Seconds& seconds, long value)
{
    if (value < 0 || value > kMostSeconds) {
        return badValue();
    }
    options.*seconds.field = value;
    return nullptr;
}

/// @return whether a header would end before its end, or add another one
bool breaksLine(const std::string& header)
{
    return std::any_of(header.begin(), header.end(),
                       [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

bool isMethodName(const std::string& text)
{
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < '\x7f'; });
}

/// @return whether the URL has no host. libcurl would skip the third slash and take the path's first part for the host.
bool lacksHost(const std::string& url)
{
    return url.rfind("http:///", 0) == 0 || url.rfind("https:///", 0) == 0;
}

/// @return why a text is refused; null when it is not
const char* problemOf(MZCURL_OPTION_TYPE id, const std::string& value)
{
    if (value.find('\0') != std::string::npos) {
        return "The text holds a NUL byte";
    }
    if (value.size() > kMostText) {
        return badValue();
    }
    if (id == MZCURL_OPT_CUSTOMREQUEST && !isMethodName(value)) {
        return "The text is not the name of a method";
    }
    return id == MZCURL_OPT_URL && lacksHost(value) ? "The URL names no host" : nullptr;
}

}  // namespace

const char* setNumber(Options& options, MZCURL_OPTION_TYPE id, long long value)
{
    const Option* const option = find(id);
    if (option == nullptr) {
        return mismatch(option);
    }
    const Field& field = option->field;
    if (std::holds_alternative<Size>(field)) {
        if (value < -1) {
            return badValue();
        }
        options.bodySize = value;
        return nullptr;
    }
    const auto number = static_cast<long>(value);
    if (number != value) {
        return "The number is out of range";
    }
    if (const auto* const seconds = std::get_if<Seconds>(&field)) {
        return setSeconds(options, *seconds, number);
    }
    if (const auto* const plain = std::get_if<long Options::*>(&field)) {
        options.*(*plain) = number;
    } else if (std::holds_alternative<Post>(field)) {
        options.sendsBody = number != 0;
    } else if (std::holds_alternative<Get>(field)) {
        options.sendsBody = options.sendsBody && number == 0;
    } else if (!std::holds_alternative<Ignored>(field)) {
        return mismatch(option);
    }
    return nullptr;
}

const char* setText(Options& options, MZCURL_OPTION_TYPE id, const std::string& value)
{
    const Option* const option = find(id);
    if (option != nullptr && std::holds_alternative<Body>(option->field)) {
        options.sendsBody = true;
        options.body = value.data();
        return nullptr;
    }
    const auto* const field =
        option != nullptr ? std::get_if<std::string Options::*>(&option->field) : nullptr;
    if (field == nullptr) {
        return mismatch(option);
    }
    if (const char* const problem = problemOf(id, value)) {
        return problem;
    }
    options.*(*field) = value;
    return nullptr;
}

const char* setList(Options& options, MZCURL_OPTION_TYPE id, const std::list<std::string>& value)
{
    const Option* const option = find(id);
    if (option == nullptr || !std::holds_alternative<Lines>(option->field)) {
        return mismatch(option);
    }
    for (const std::string& line : value) {
        if (breaksLine(line)) {
            return "A header holds a CR, LF or NUL byte";
        }
    }
    options.headers = Headers(value);
    return nullptr;
}

const char* setWriter(Options& options, MZCURL_OPTION_TYPE id, WriteCallback value)
{
    return store(options, id, value);
}

const char* setSslContext(Options& options, MZCURL_OPTION_TYPE id, SslContextCallback value)
{
    return store(options, id, value);
}

const char* setPointer(Options& options, MZCURL_OPTION_TYPE id, void* value)
{
    return store(options, id, value);
}

}  // namespace MZCurl
