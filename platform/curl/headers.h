// headers.h - the header lines of a request as libcurl reads them, in two blocks of memory instead of two for each line.
#pragma once

#include <curl/curl.h>

#include <list>
#include <string>
#include <vector>

namespace MZCurl {

/// libcurl reads the list while a transfer that names it is under way; it changes nothing in it.
class Headers {
public:
    Headers() = default;
    /// @throw std::bad_alloc
    explicit Headers(const std::list<std::string>& lines);

    /// @return null for none. Valid as long as this object, or the one that it is moved to
    const curl_slist* list() const { return m_nodes.empty() ? nullptr : m_nodes.data(); }

private:
    std::vector<char> m_text;  // vectors keep their memory when they are moved
    std::vector<curl_slist> m_nodes;
};

}  // namespace MZCurl
