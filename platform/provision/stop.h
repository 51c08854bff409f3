// stop.h - the exception that ends the tool, with its exit code.
#pragma once

#include <stdexcept>
#include <string>

namespace provision {

enum ExitCode {
    EXIT_DONE = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2,
    EXIT_EXISTS = 3,    ///< a file or token exists and was left alone
    EXIT_MISMATCH = 4,  ///< certificate and key do not belong together
};

/// The text is for the user at the terminal and never holds a secret.
class Stop : public std::runtime_error {
public:
    Stop(ExitCode code, const std::string& text) : std::runtime_error(text), m_code(code) {}
    ExitCode code() const { return m_code; }

private:
    ExitCode m_code;
};

}  // namespace provision
