// monitor.h - shows calls of the service as they pass over the bus.
#pragma once

#include <string>

namespace client {

struct MonitorOptions {
    std::string bus;  ///< address; empty: the system's
    bool json = false;
    bool showPrivate = false;  ///< arguments and answers, which are private values
};

/// Prints each call and each answer until the bus goes away or the program is interrupted.
/// @return the exit code
int monitor(const MonitorOptions& options);

}  // namespace client
