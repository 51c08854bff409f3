// settings_file.cpp - reads and checks one version of the settings file.
#include "settings_file.h"

#include "common/descriptor.h"
#include "common/file_bytes.h"
#include "settings_known.h"

#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

namespace settings {

namespace {

constexpr std::size_t kSizeLimit = std::size_t{64} * 1024;
/// Largest number of faults that are logged of one file.
constexpr std::size_t kProblemLimit = 20;
/// No file system keeps times coarser than this. A file changed twice within it may show the same
/// stamp for both versions.
constexpr time_t kStampSeconds = 3;

struct FreeKeyFile {
    void operator()(GKeyFile* file) const { g_key_file_free(file); }
};
using KeyFile = std::unique_ptr<GKeyFile, FreeKeyFile>;

struct FreeNames {
    void operator()(gchar** names) const { g_strfreev(names); }
};
using Names = std::unique_ptr<gchar*, FreeNames>;

struct FreeText {
    void operator()(gchar* text) const { g_free(text); }
};
using Text = std::unique_ptr<gchar, FreeText>;

bool sameTime(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool isSettled(const Stamp& stamp)
{
    const time_t newest = std::max(stamp.modified.tv_sec, stamp.changed.tv_sec);
    return time(nullptr) - newest >= kStampSeconds;
}

std::string cannotBeRead(int error)
{
    return std::string("cannot be read: ") + g_strerror(error) +
           "; every setting counts as not set until the file is there and readable "
           "(PLEVO_DEVICE_CONF names another)";
}

/// @return null when GKeyFile refuses the first `length` bytes
KeyFile load(const std::string& bytes, std::size_t length)
{
    KeyFile file(g_key_file_new());
    // Without this flag GKeyFile would drop "key[xx]=" silently; so it is reported as unknown.
    if (!g_key_file_load_from_data(file.get(), bytes.data(), length, G_KEY_FILE_KEEP_TRANSLATIONS,
                                   nullptr))
        file.reset();
    return file;
}

/// Number of the first line that GKeyFile refuses. GLib's error text is not used: it quotes the line,
/// which may hold a token.
std::size_t badLine(const std::string& bytes)
{
    std::vector<std::size_t> ends;
    for (std::size_t at = 0; at < bytes.size(); at++) {
        if (bytes[at] == '\n' || at + 1 == bytes.size())
            ends.push_back(at + 1);
    }
    const auto bad = std::partition_point(
        ends.begin(), ends.end(), [&](std::size_t end) { return load(bytes, end) != nullptr; });
    return static_cast<std::size_t>(bad - ends.begin()) + 1;
}

/// Removes blanks behind a value; GKeyFile removes only those before it.
std::string trimmed(std::string value)
{
    value.erase(value.find_last_not_of(" \t") + 1);
    return value;
}

std::string_view withoutBlanks(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

/// Number of the last line with this group, or with this key in it.
/// @param key empty: the group's
std::size_t lineOf(std::string_view bytes, std::string_view group, std::string_view key)
{
    bool inside = false;
    std::size_t number = 0;
    std::size_t found = 0;
    for (std::size_t at = 0; at < bytes.size(); number++) {
        const std::size_t end = std::min(bytes.find('\n', at), bytes.size());
        const std::string_view line = withoutBlanks(bytes.substr(at, end - at));
        const bool heads = !line.empty() && line.front() == '[';
        if (heads)
            inside = line.substr(1, line.rfind(']') - 1) == group;
        const bool isKey =
            !heads && !key.empty() &&
            withoutBlanks(line.substr(0, std::min(line.find('='), line.size()))) == key;
        if (inside && (isKey || (heads && key.empty())))
            found = number + 1;
        at = end + 1;
    }
    return found;
}

class Parser {
public:
    Parser(const std::string& path, const std::string& bytes, Values& values)
        : m_path(path), m_bytes(bytes), m_values(values)
    {
    }

    void problem(const std::string& text)
    {
        m_count++;
        if (m_count <= kProblemLimit)
            m_values.problems.push_back(m_path + ": " + text);
    }

    void group(GKeyFile* file, const char* group)
    {
        if (!isKnownGroup(group)) {
            unknown(lineOf(m_bytes, group, ""), "group");
            return;
        }
        const Names keys(g_key_file_get_keys(file, group, nullptr, nullptr));
        for (gchar** key = keys.get(); key != nullptr && *key != nullptr; key++) {
            const Text raw(g_key_file_get_value(file, group, *key, nullptr));
            if (raw != nullptr)
                setting({group, *key}, trimmed(raw.get()));
        }
    }

    void summary()
    {
        if (m_count > kProblemLimit)
            m_values.problems.push_back(m_path + ": " + std::to_string(m_count - kProblemLimit) +
                                        " more such lines");
    }

private:
    /// The line itself is not shown: it may be the second half of a token that was wrapped.
    void unknown(std::size_t line, const std::string& what)
    {
        problem("line " + std::to_string(line) + " is not a known " + what + " and is ignored");
    }

    void setting(const Name& name, const std::string& value)
    {
        const std::string shown = "[" + name.first + "] " + name.second + " ";
        const auto kind = kindOf(name.first, name.second);
        if (!kind)
            unknown(lineOf(m_bytes, name.first, name.second), "setting");
        const std::string_view fault = faultIn(kind.value_or(Kind::Text), value);
        if (fault.empty()) {
            m_values.texts[name] = value;
            return;
        }
        m_values.refused.insert(name);
        if (kind)
            problem(shown + std::string(fault) + "; it counts as not set until it is mended");
    }

    const std::string& m_path;
    const std::string& m_bytes;
    Values& m_values;
    std::size_t m_count = 0;
};

}  // namespace

Stamp Stamp::of(const struct stat& status)
{
    return {status.st_dev, status.st_ino, status.st_size, status.st_mtim, status.st_ctim};
}

bool Stamp::operator==(const Stamp& other) const
{
    return device == other.device && inode == other.inode && size == other.size &&
           sameTime(modified, other.modified) && sameTime(changed, other.changed);
}

bool Contents::sameAs(const Contents& other) const
{
    return bytes == other.bytes && problem == other.problem && mode == other.mode;
}

Contents readFile(const std::string& path)
{
    Contents contents;
    // O_NONBLOCK: opening a FIFO would wait for its writer.
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (file.fd < 0 || fstat(file.fd, &status) != 0) {
        contents.problem = cannotBeRead(errno);
        return contents;
    }
    contents.stamp = Stamp::of(status);
    contents.mode = status.st_mode;
    contents.settled = isSettled(contents.stamp);
    if (!S_ISREG(status.st_mode))
        contents.problem = "is not a regular file; every setting counts as not set";
    else if (const int error = readUpTo(file.fd, kSizeLimit, contents.bytes); error != 0)
        contents.problem = cannotBeRead(error);
    else if (contents.bytes.size() > kSizeLimit)
        contents.problem = "is larger than 64 KiB; every setting counts as not set";
    if (!contents.problem.empty())
        contents.bytes.clear();
    return contents;
}

Values parse(const std::string& path, const Contents& contents)
{
    Values values;
    // A NUL would cut the value silently. Another control byte makes the key's check refuse it.
    std::string bytes = contents.bytes;
    std::replace(bytes.begin(), bytes.end(), '\0', '\1');
    Parser parser(path, bytes, values);
    if (!contents.problem.empty()) {
        parser.problem(contents.problem);
        return values;
    }

    const KeyFile file = load(bytes, bytes.size());
    if (file == nullptr) {
        parser.problem("line " + std::to_string(badLine(bytes)) +
                       " is not a [group], a key=value or a # comment in its place; every setting "
                       "counts as not set until it is mended");
        return values;
    }
    values.usable = true;
    if ((contents.mode & S_IRWXO) != 0)
        parser.problem(
            "is open to others, who may read its tokens or name another store; chmod o= it");
    const Names groups(g_key_file_get_groups(file.get(), nullptr));
    for (gchar** group = groups.get(); *group != nullptr; group++)
        parser.group(file.get(), *group);
    parser.summary();
    return values;
}

}  // namespace settings
