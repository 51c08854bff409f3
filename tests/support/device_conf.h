// device_conf.h - a settings file and a captured log, for tests of the Linux backend.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace device {

/// A folder of its own under the system's temporary one, removed at the end.
class Folder {
public:
    Folder();
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

/// The settings file that PLEVO_DEVICE_CONF names.
class Conf {
public:
    /// Without a file; the variable is set.
    Conf();

    std::string path() const { return m_folder.path() + "/device.conf"; }
    /// Sets one key, or takes it away, and writes the file.
    void set(const std::string& group, const std::string& key, std::optional<std::string> value);
    /// Writes the file as given.
    void write(const std::string& bytes) const;
    /// Puts a new file in its place, as an editor does.
    void replace(const std::string& bytes) const;
    void remove() const;

private:
    Folder m_folder;
    std::map<std::string, std::map<std::string, std::string>> m_values;
};

/// Standard error of this process, led into a file while this lives.
class CapturedLog {
public:
    CapturedLog();
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    /// Everything written so far.
    std::string text() const;
    std::vector<std::string> lines() const;
    /// The lines that begin so, without that.
    std::vector<std::string> linesWith(const std::string& prefix) const;
    void clear() const;

private:
    Folder m_folder;
    int m_saved;
};

}  // namespace device
