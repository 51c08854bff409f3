// url.h - the parts of a URL, without a parser and without memory.
#pragma once

#include <string>
#include <string_view>

namespace MZCurl {

/// @return the URL up to its path, query or fragment: scheme and host
std::string_view startOf(const std::string& url);

/// @return the URL without query and fragment: scheme, host and path
std::string_view pathOf(const std::string& url);

/// @return the rest of an HTTP URL behind its start, when libcurl would send it unchanged as the target of the request;
///   empty when libcurl has to decide
std::string_view targetOf(const std::string& url);

}  // namespace MZCurl
