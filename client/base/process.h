// process.h - a process as /proc shows it.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace client {

/// The process that owns the service's name.
struct Process {
    unsigned pid = 0;
    unsigned uid = 0;
    unsigned gid = 0;
    std::vector<unsigned> groups;
    std::string program;                   ///< empty: only root may see it
    std::string version;                   ///< the same
    std::vector<std::string> environment;  ///< "NAME=value"
    bool environmentKnown = false;
    bool stopped = false;  ///< by a signal, or by a debugger
    double started = 0;    ///< seconds since 1970, by the clock as it is now; 0: not known
};

Process processOf(unsigned pid);

/// How many connections over TCP the process has; nullopt when this user may not look.
std::optional<int> connectionsOf(unsigned pid);

/// The whole file; empty when it cannot be read.
std::string contentOf(const std::string& path);

/// Runs a program and hands out each line of its standard output.
/// @param arguments the first is the program, looked for in the usual folders
void forEachLine(const std::vector<std::string>& arguments,
                 const std::vector<std::string>& environment,
                 const std::function<void(const std::string&)>& take);
/// The whole output.
std::string outputOf(const std::vector<std::string>& arguments,
                     const std::vector<std::string>& environment);

}  // namespace client
