// settings_check.h - finds the mistakes of a settings file.
#pragma once

#include <string>
#include <vector>

namespace client {

struct Mistake {
    std::size_t line;    ///< from 1; 0: the whole file
    std::string reason;  ///< "syntax", "value", "unknown", "double", "encoding", "not-set"
    std::string text;    ///< names keys, never values
    bool harmless;       ///< true: a warning only, the service reads the file all the same

    /// "line 3: ..."
    std::string shown() const;
};

/// @return all mistakes of a settings file, in the order of its lines
std::vector<Mistake> mistakesIn(const std::string& bytes);

/// @return the settings that the file lacks: those that the service needs, and as harmless the choice of the server, without
///   which the service uses the sandbox
std::vector<Mistake> missingIn(const std::string& bytes);

/// `billingctl settings check FILE`: prints the mistakes of a file.
/// @return the exit code
int checkSettingsFile(const std::string& path, bool json);

}  // namespace client
