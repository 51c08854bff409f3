// headers.cpp - builds the list of header lines for libcurl.
#include "headers.h"

#include <cstddef>
#include <numeric>

namespace MZCurl {

Headers::Headers(const std::list<std::string>& lines)
{
    m_nodes.reserve(lines.size());
    m_text.reserve(std::accumulate(
        lines.begin(), lines.end(), std::size_t{0},
        [](std::size_t sum, const std::string& line) { return sum + line.size() + 1; }));
    for (const std::string& line : lines) {
        char* const begin = m_text.data() + m_text.size();
        m_text.insert(m_text.end(), line.c_str(), line.c_str() + line.size() + 1);
        m_nodes.push_back({begin, nullptr});
        if (m_nodes.size() > 1) {
            m_nodes[m_nodes.size() - 2].next = &m_nodes.back();
        }
    }
}

}  // namespace MZCurl
