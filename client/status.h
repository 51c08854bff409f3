// status.h - how the service is, in a few lines.
#pragma once

#include <string>

namespace client {

struct StatusOptions {
    std::string bus;      ///< address; empty: the system's
    double timeout = 10;  ///< seconds, for what waits for somebody
    bool json = false;
};

/// Prints it. Asks the bus, the service manager, /proc and the journal, not the service.
/// @return EXIT_DONE when the service runs, else EXIT_UNREACHABLE
int status(const StatusOptions& options);

}  // namespace client
