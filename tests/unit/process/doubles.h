// doubles.h - what the process's own code calls, with one timeline.
#pragma once

#include <poll.h>
#include <signal.h>

#include <functional>
#include <string>
#include <vector>

namespace test {

using Events = std::vector<std::string>;

/// The one timeline of all doubles: log lines, and calls of libraries.
Events& events();

/// Takes the place of ppoll(). Null: the real function.
/// @param limit "none", or seconds with nine digits
/// @param mask as it is during the wait
using Wait =
    std::function<int(std::vector<pollfd>& polled, const std::string& limit, const sigset_t& mask)>;
Wait& wait();

/// @return what GLib's allocator was told before the first line of the program
std::string slices();

}  // namespace test
