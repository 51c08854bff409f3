// process.h - a process as /proc shows it.
#pragma once

#include "facts.h"

#include <functional>
#include <string>

namespace client {

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
