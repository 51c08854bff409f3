// headers.h - the header lines of a request as libcurl reads them, in two blocks of memory instead of two for each line.
#pragma once

#include <curl/curl.h>

#include <list>
#include <string>
#include <vector>

namespace MZCurl {

/// libcurl reads the list during the transfer that uses it, and does not change it.
class Headers {
public:
    Headers() = default;
    /// @throw std::bad_alloc
    explicit Headers(const std::list<std::string>& lines);

    /// @return null when there are no lines. Valid for the life of this object, and of the one that it is moved to
    const curl_slist* list() const { return m_nodes.empty() ? nullptr : m_nodes.data(); }

private:
    std::vector<char> m_text;  // a move keeps a vector's memory in place
    std::vector<curl_slist> m_nodes;
};

}  // namespace MZCurl
