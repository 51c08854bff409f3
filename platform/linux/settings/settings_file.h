// settings_file.h - one version of the settings file: its bytes, its values, its faults.
#pragma once

#include <sys/stat.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace settings {

/// Group and key.
using Name = std::pair<std::string, std::string>;

/// Compares names without a copy of their texts; by the keys' lengths first, since most keys differ there.
struct ByName {
    using is_transparent = void;
    using View = std::pair<std::string_view, std::string_view>;
    bool operator()(const View& a, const View& b) const
    {
        return a.second.size() != b.second.size() ? a.second.size() < b.second.size() : a < b;
    }
};

/// Identifies a version of a file without reading it.
struct Stamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};

    static Stamp of(const struct stat& status);
    bool operator==(const Stamp& other) const;
};

/// Content of a file.
struct Contents {
    std::string bytes;
    std::string problem;  ///< reason why there are no bytes; else empty
    Stamp stamp;
    mode_t mode = 0;
    bool settled = false;  ///< a later change will change the stamp

    bool sameAs(const Contents& other) const;
};

/// Reads a file of at most 64 KiB. Never blocks, whatever kind of file it is.
Contents readFile(const std::string& path);

/// Settings of a file.
struct Values {
    bool usable = false;  ///< the file could be read and parsed
    std::map<Name, std::string, ByName> texts;
    std::set<Name, ByName> refused;
    std::vector<std::string> problems;  ///< one line each; they name keys, never values
};

/// Parses a file and checks it against the known settings.
Values parse(const std::string& path, const Contents& contents);

}  // namespace settings
