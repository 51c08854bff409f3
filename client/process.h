// process.h - a process as /proc shows it.
#pragma once

#include "facts.h"

#include <string>

namespace client {

Process processOf(unsigned pid);

/// The whole file; empty when it cannot be read.
std::string contentOf(const std::string& path);

/// Runs a program and reads what it prints on standard output, at most 64 KiB.
/// @param arguments the first is the program, looked for in the usual folders
std::string outputOf(const std::vector<std::string>& arguments,
                     const std::vector<std::string>& environment);

}  // namespace client
