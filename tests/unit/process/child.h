// child.h - steps that change the whole process, in a process of their own.
#pragma once

#include <functional>
#include <string>

namespace test {

/// Runs the steps in a child process, which they may leave in any state. SIGALRM ends it after 20 s.
/// @return what they return; after it the signal or the exit status of a child that did not get to its
/// end
std::string inChild(const std::function<std::string()>& steps);

/// Makes a folder the root folder of the process: for root, or a user that may have a name space.
bool enterRoot(const std::string& folder);

}  // namespace test
