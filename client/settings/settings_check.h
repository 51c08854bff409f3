// settings_check.h - what is wrong in a settings file, line by line.
#pragma once

#include <string>
#include <vector>

namespace client {

struct Mistake {
    std::size_t line;    ///< from 1; 0: of the whole file
    std::string reason;  ///< "syntax", "value", "unknown", "double", "encoding", "not-set"
    std::string text;    ///< names keys, never values
    bool harmless;       ///< the service reads the file as if it were not there

    /// "line 3: ..."
    std::string shown() const;
};

/// All mistakes in what a settings file holds, in the order of its lines.
std::vector<Mistake> mistakesIn(const std::string& bytes);

/// Settings that the service cannot work without and that are not in there.
std::vector<Mistake> missingIn(const std::string& bytes);

/// `billingctl settings check FILE`: prints what is wrong in a file. @return the exit code
int checkSettingsFile(const std::string& path, bool json);

}  // namespace client
