// settings_file.h - one version of the settings file: its bytes, its values, what is wrong in it.
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

/// Finds a name by texts that nobody has made strings of.
struct ByName {
    using is_transparent = void;
    using View = std::pair<std::string_view, std::string_view>;
    bool operator()(const View& a, const View& b) const { return a < b; }
};

/// What tells one version of a file from the next without reading it.
struct Stamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};

    static Stamp of(const struct stat& status);
    bool operator==(const Stamp& other) const;
};

/// A file as it was read.
struct Contents {
    std::string bytes;
    std::string problem;  ///< why there are no bytes; empty when there are
    Stamp stamp;
    mode_t mode = 0;
    bool settled = false;  ///< the next change is certain to change the stamp

    bool sameAs(const Contents& other) const;
};

/// Reads a file of at most 64 KiB. Never blocks on what is no regular file.
Contents readFile(const std::string& path);

/// What a file says.
struct Values {
    bool usable = false;  ///< the file could be read and parsed
    std::map<Name, std::string, ByName> texts;
    std::set<Name, ByName> refused;
    std::vector<std::string> problems;  ///< one line each; they name keys, never values
};

/// Takes a file apart and checks it against the known settings.
Values parse(const std::string& path, const Contents& contents);

}  // namespace settings
