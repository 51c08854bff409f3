// monitor.h - shows calls of the service as they pass over the bus.
#pragma once

#include <string>

namespace client {

struct MonitorOptions {
    std::string bus;  ///< address; empty: the system bus
    bool json = false;
    bool showPrivate = false;  ///< show arguments and answers, which are private values
};

/// Prints each call and each answer until the bus closes the connection or the program is interrupted.
/// @return the exit code
int monitor(const MonitorOptions& options);

}  // namespace client
