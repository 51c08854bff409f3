// process.h - the state of a process from /proc, and the output of programs.
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
    std::string program;                   ///< empty: this process may not read it
    std::string version;                   ///< empty: as for `program`
    std::vector<std::string> environment;  ///< "NAME=value"
    bool environmentKnown = false;
    double started = 0;  ///< seconds since 1970 by the current clock; 0: not known
};

Process processOf(unsigned pid);

/// @return whether a signal or a debugger has stopped the process
bool isStopped(unsigned pid);

/// @return number of TCP connections of the process; nullopt when this user may not read it
std::optional<int> connectionsOf(unsigned pid);

/// @return errno of opening the file for reading; 0 when it can be opened. Does not wait for the writer of a FIFO.
int openErrorOf(const std::string& path);

/// @return the whole file; empty when it cannot be read
std::string contentOf(const std::string& path);

/// Runs a program and passes each line of its standard output on.
/// @param arguments the first one is the program, searched for in the usual folders
void forEachLine(const std::vector<std::string>& arguments,
                 const std::vector<std::string>& environment,
                 const std::function<void(const std::string&)>& take);
/// @return the whole standard output of a program
std::string outputOf(const std::vector<std::string>& arguments,
                     const std::vector<std::string>& environment);

}  // namespace client
