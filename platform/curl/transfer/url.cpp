// url.cpp - finds the parts of a URL.
#include "url.h"

#include <algorithm>
#include <cstddef>

namespace MZCurl {
namespace {

constexpr std::string_view kBeforeHost("://");

/// std::string::find_first_of calls memchr for each character.
template <class Predicate>
std::string_view upTo(const std::string& url, std::size_t from, Predicate isEnd)
{
    const auto begin = url.begin() + static_cast<std::ptrdiff_t>(from);
    const auto end = std::find_if(begin, url.end(), isEnd);
    return std::string_view(url).substr(0, static_cast<std::size_t>(end - url.begin()));
}

bool isHttp(const std::string& url)
{
    return url.rfind("http", 0) == 0 && url.find(kBeforeHost) <= std::string_view("https").size();
}

}  // namespace

std::string_view startOf(const std::string& url)
{
    const std::size_t scheme = url.find(kBeforeHost);
    // The query of a URL without a scheme may have another URL in it.
    const bool isFirst = scheme != std::string::npos && scheme == url.find_first_of(":/?#");
    const std::size_t host = isFirst ? scheme + kBeforeHost.size() : 0;
    return upTo(url, host, [](char c) { return c == '/' || c == '?' || c == '#' || c == '\\'; });
}

std::string_view pathOf(const std::string& url)
{
    return upTo(url, 0, [](char c) { return c == '?' || c == '#'; });
}

std::string_view targetOf(const std::string& url)
{
    const std::string_view target = std::string_view(url).substr(startOf(url).size());
    const std::string_view path = target.substr(0, target.find('?'));
    // libcurl removes dot segments (newer versions also encoded ones) and the fragment, and refuses blanks.
    const bool unchanged = isHttp(url) && !target.empty() && target.front() == '/' &&
                           target.back() != '?' && path.find("/.") == std::string_view::npos &&
                           path.find('%') == std::string_view::npos &&
                           std::all_of(target.begin(), target.end(),
                                       [](char c) { return c > ' ' && c < '\x7f' && c != '#'; });
    return unchanged ? target : std::string_view();
}

}  // namespace MZCurl
