// device_conf.h - a settings file and a captured log, for tests of the Linux backend.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace device {

/// A temporary folder; the destructor removes it.
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
    /// Sets PLEVO_DEVICE_CONF and makes no file.
    Conf();

    std::string path() const { return m_folder.path() + "/device.conf"; }
    /// Sets or removes one key and writes the file.
    void set(const std::string& group, const std::string& key, std::optional<std::string> value);
    /// Writes this text into the file.
    void write(const std::string& bytes) const;
    /// Replaces the file by rename, as an editor does.
    void replace(const std::string& bytes) const;
    void remove() const;

private:
    Folder m_folder;
    std::map<std::string, std::map<std::string, std::string>> m_values;
};

/// Redirects standard error of this process into a file while it lives.
class CapturedLog {
public:
    CapturedLog();
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    /// All text written so far.
    std::string text() const;
    std::vector<std::string> lines() const;
    /// The lines with this prefix, without it.
    std::vector<std::string> linesWith(const std::string& prefix) const;
    void clear() const;

private:
    Folder m_folder;
    int m_saved;
};

}  // namespace device
