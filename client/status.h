// status.h - prints the state of the service.
#pragma once

#include <string>

namespace client {

struct StatusOptions {
    std::string bus;      ///< address; empty: the system's
    double timeout = 10;  ///< seconds, for each step that waits
    bool json = false;
};

/// Prints the state. Asks the bus, the service manager, /proc and the journal, not the service.
/// @return EXIT_DONE when the service runs, else EXIT_UNREACHABLE
int status(const StatusOptions& options);

}  // namespace client
