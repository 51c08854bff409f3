// device_conf.cpp - a settings file and a captured log.
#include "device_conf.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>

namespace device {

namespace {

/// The present folders. The end of the process removes the rest; the end of a child process does not.
std::set<std::string>& folders()
{
    static const pid_t s_process = getpid();
    static std::set<std::string>* const s_folders = [] {
        std::atexit([] {
            std::error_code ignored;
            for (const std::string& path : folders()) {
                if (s_process == getpid())
                    std::filesystem::remove_all(path, ignored);
            }
        });
        // Never destroyed: destructors of static objects use it.
        return new std::set<std::string>;
    }();
    return *s_folders;
}

}  // namespace

Folder::Folder()
{
    std::string name = std::filesystem::temp_directory_path() / "billing-device-XXXXXX";
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no temporary folder");
    m_path = name;
    folders().insert(m_path);
}

Folder::~Folder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
    folders().erase(m_path);
}

Conf::Conf()
{
    setenv("PLEVO_DEVICE_CONF", path().c_str(), 1);
}

void Conf::set(const std::string& group, const std::string& key, std::optional<std::string> value)
{
    if (value)
        m_values[group][key] = *value;
    else
        m_values[group].erase(key);
    std::string bytes;
    for (const auto& [name, keys] : m_values) {
        bytes += "[" + name + "]\n";
        for (const auto& [theKey, text] : keys)
            bytes += theKey + "=" + text + "\n";
    }
    write(bytes);
}

namespace {

/// Sets a umask that keeps new files from group and others, as on a device.
struct Private {
    Private() : before(umask(S_IRWXG | S_IRWXO)) {}
    ~Private() { umask(before); }
    Private(const Private&) = delete;
    Private& operator=(const Private&) = delete;

    const mode_t before;
};

}  // namespace

void Conf::write(const std::string& bytes) const
{
    const Private mask;
    std::ofstream file(path(), std::ios::binary | std::ios::trunc);
    file << bytes;
    if (!file.flush())
        throw std::runtime_error("the settings cannot be written");
}

void Conf::replace(const std::string& bytes) const
{
    const std::string next = path() + ".new";
    const Private mask;
    std::ofstream(next, std::ios::binary) << bytes;
    std::filesystem::rename(next, path());
}

void Conf::remove() const
{
    std::filesystem::remove(path());
}

CapturedLog::CapturedLog() : m_saved(dup(STDERR_FILENO))
{
    const std::string path = m_folder.path() + "/log";
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (file < 0 || m_saved < 0 || dup2(file, STDERR_FILENO) < 0)
        throw std::runtime_error("the log cannot be captured");
    close(file);
}

CapturedLog::~CapturedLog()
{
    dup2(m_saved, STDERR_FILENO);
    close(m_saved);
}

std::string CapturedLog::text() const
{
    std::ostringstream all;
    all << std::ifstream(m_folder.path() + "/log", std::ios::binary).rdbuf();
    return all.str();
}

std::vector<std::string> CapturedLog::lines() const
{
    std::vector<std::string> found;
    std::istringstream all(text());
    for (std::string line; std::getline(all, line);)
        found.push_back(line);
    return found;
}

std::vector<std::string> CapturedLog::linesWith(const std::string& prefix) const
{
    std::vector<std::string> found;
    for (const std::string& line : lines()) {
        if (line.compare(0, prefix.size(), prefix) == 0)
            found.push_back(line.substr(prefix.size()));
    }
    return found;
}

void CapturedLog::clear() const
{
    std::filesystem::resize_file(m_folder.path() + "/log", 0);
}

}  // namespace device
