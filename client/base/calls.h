// calls.h - the service's five methods as commands.
#pragma once

#include "bus.h"

#include <string>
#include <vector>

namespace client {

/// The exit codes of billingctl.
enum ExitCode {
    EXIT_DONE = 0,         ///< resp_result 0; doctor: nothing has failed
    EXIT_FAILED = 1,       ///< any other failure; doctor: a check has failed
    EXIT_USAGE = 2,        ///< the arguments are wrong
    EXIT_TRANSFER = 3,     ///< resp_result -1
    EXIT_REFUSED = 4,      ///< resp_result 1160003
    EXIT_UNREACHABLE = 5,  ///< the bus or the service cannot be reached, or does not answer
    EXIT_WARNING = 6,      ///< doctor: it works, but needs attention
};

/// An argument of a method: its name on the bus and as an option.
struct Argument {
    const char* name;
    const char* option;
    const char* help;
    bool required;
};

struct Method {
    const char* name;     ///< on the bus
    const char* command;  ///< of billingctl
    const char* help;
    std::vector<Argument> arguments;
};

/// The five methods, with their arguments in the order of the interface.
const std::vector<Method>& methods();

struct CallOptions {
    std::string bus;       ///< address; empty: the system bus
    double timeout = 100;  ///< seconds; a transfer may take 90
    bool json = false;
    bool raw = false;
};

/// Seconds to wait for the bus itself.
inline constexpr double kBusTimeout = 10;

/// Calls a method and prints its answer as text, as JSON, or (raw) only the server's body.
/// @return the exit code
int call(const Method& method, const std::vector<std::string>& arguments,
         const CallOptions& options);

/// @return the meaning of a resp_result, in a few words
const char* meaningOf(int result);
ExitCode exitCodeOf(int result);

/// Prints cause and cure of a command that has no result: as JSON on standard output, or as a line on standard error.
/// @param what method or command; empty when there is none
void printFailure(const std::string& what, const std::string& cause, const std::string& cure,
                  bool json);

}  // namespace client
