// nearest.h - finds the known word that is nearest to a mistyped one, for "did you mean".
#pragma once

#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

namespace nearest {

/// Edit distance: letters to change, insert or remove to turn one word into the other.
inline std::size_t distance(const std::string& a, const std::string& b)
{
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t corner = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t changed = corner + (a[i - 1] == b[j - 1] ? 0 : 1);
            corner = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, changed});
        }
    }
    return row[b.size()];
}

/// @param word as typed
/// @return empty when none of the words is near
inline std::string to(const std::string& word, const std::vector<std::string>& words)
{
    std::string best;
    std::size_t least = 1 + word.size() / 3;
    for (const std::string& one : words) {
        const bool begins = word.size() > 2 && one.rfind(word, 0) == 0;
        const std::size_t far = begins ? 0 : distance(word, one);
        if (far <= least) {
            least = far;
            best = one;
        }
    }
    return best;
}

}  // namespace nearest
