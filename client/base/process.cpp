// process.cpp - reads the state of a process from /proc, and runs programs.
#include "process.h"

#include "bus.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

namespace client {

namespace {

std::string programOf(const std::string& folder)
{
    char path[PATH_MAX];
    const ssize_t length = readlink((folder + "/exe").c_str(), path, sizeof path);
    return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : "";
}

/// Reads the version from the service's program file. The program is not run: root would run a file that the service's user
/// may have replaced.
/// @return empty when this user may not read the file
std::string versionOf(const std::string& folder)
{
    constexpr std::string_view kMark = "billing-service-version=";
    const std::string bytes = contentOf(folder + "/exe");
    const std::size_t at = bytes.find(kMark);
    return at == std::string::npos ? "" : bytes.substr(at + kMark.size()).c_str();
}

/// @param record content of /proc/PID/stat, whose start time counts from the boot
/// @return start of the process by the current clock, seconds since 1970; 0 when it is not known
double startOf(const std::string& record)
{
    // The program's name may contain anything; only numbers follow its closing bracket.
    std::istringstream fields(record.substr(record.rfind(')') + 1));
    std::string field;
    for (int i = 3; i <= 22 && fields >> field; ++i) {
    }
    timespec now{};
    timespec sinceBoot{};
    if (!fields || clock_gettime(CLOCK_REALTIME, &now) != 0 ||
        clock_gettime(CLOCK_BOOTTIME, &sinceBoot) != 0) {
        return 0;
    }
    const double age =
        static_cast<double>(sinceBoot.tv_sec) + static_cast<double>(sinceBoot.tv_nsec) / 1e9 -
        std::strtod(field.c_str(), nullptr) / static_cast<double>(sysconf(_SC_CLK_TCK));
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9 - age;
}

/// Reads users and groups from /proc/PID/status.
void readStatus(const std::string& folder, Process& process)
{
    std::istringstream lines(contentOf(folder + "/status"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name;
        words >> name;
        unsigned number = 0;
        if (name == "Uid:" && words >> number >> number) {  // real, effective
            process.uid = number;
        } else if (name == "Gid:" && words >> number >> number) {
            process.gid = number;
        } else if (name == "Groups:") {
            while (words >> number) {
                process.groups.push_back(number);
            }
        }
    }
}

std::vector<const char*> pointersTo(const std::vector<std::string>& texts)
{
    std::vector<const char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(text.c_str());
    }
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

bool isStopped(unsigned pid)
{
    const std::string status = contentOf("/proc/" + std::to_string(pid) + "/status");
    return status.find("\nState:\tT") != std::string::npos ||
           status.find("\nState:\tt") != std::string::npos;
}

int openErrorOf(const std::string& path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (file < 0) {
        return errno;
    }
    close(file);
    return 0;
}

std::string contentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return file ? content.str() : "";
}

Process processOf(unsigned pid)
{
    const std::string folder = "/proc/" + std::to_string(pid);
    Process process;
    process.pid = pid;
    readStatus(folder, process);
    process.program = programOf(folder);
    process.version = versionOf(folder);
    process.started = startOf(contentOf(folder + "/stat"));
    std::istringstream variables(contentOf(folder + "/environ"));
    for (std::string variable; std::getline(variables, variable, '\0');) {
        process.environment.push_back(variable);
    }
    process.environmentKnown = !process.environment.empty();
    return process;
}

std::optional<int> connectionsOf(unsigned pid)
{
    const std::string folder = "/proc/" + std::to_string(pid);
    std::error_code error;
    std::set<std::string> sockets;
    for (const auto& entry : std::filesystem::directory_iterator(folder + "/fd", error)) {
        std::error_code unused;
        const std::string target = std::filesystem::read_symlink(entry.path(), unused).string();
        if (target.rfind("socket:[", 0) == 0) {
            sockets.insert(target.substr(8, target.size() - 9));
        }
    }
    if (error) {
        return std::nullopt;
    }
    int count = 0;
    for (const char* const table : {"/net/tcp", "/net/tcp6"}) {
        std::istringstream lines(contentOf(folder + table));
        for (std::string line; std::getline(lines, line);) {
            std::istringstream words(line);
            std::vector<std::string> fields(std::istream_iterator<std::string>(words), {});
            const bool established = fields.size() > 9 && fields[3] == "01";
            count += established && sockets.count(fields[9]) != 0 ? 1 : 0;
        }
    }
    return count;
}

void forEachLine(const std::vector<std::string>& arguments,
                 const std::vector<std::string>& environment,
                 const std::function<void(const std::string&)>& take)
{
    const auto argv = pointersTo(arguments);
    const auto envp = pointersTo(environment);
    gint output = -1;
    GPid child = 0;
    const auto flags = static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_STDERR_TO_DEV_NULL |
                                                G_SPAWN_DO_NOT_REAP_CHILD);
    if (g_spawn_async_with_pipes(nullptr, const_cast<gchar**>(argv.data()),
                                 const_cast<gchar**>(envp.data()), flags, nullptr, nullptr, &child,
                                 nullptr, &output, nullptr, nullptr) == FALSE) {
        return;
    }
    std::string text;
    char part[4096];
    ssize_t count = 0;
    while ((count = read(output, part, sizeof part)) > 0) {
        text.append(part, static_cast<std::size_t>(count));
        std::size_t begin = 0;
        for (std::size_t end = 0; (end = text.find('\n', begin)) != std::string::npos;
             begin = end + 1) {
            take(text.substr(begin, end - begin));
        }
        text.erase(0, begin);
    }
    close(output);
    g_spawn_close_pid(child);
}

std::string outputOf(const std::vector<std::string>& arguments,
                     const std::vector<std::string>& environment)
{
    std::string text;
    forEachLine(arguments, environment, [&text](const std::string& line) { text += line + "\n"; });
    return text;
}

}  // namespace client
