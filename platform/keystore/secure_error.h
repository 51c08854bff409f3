// secure_error.h - the exception of secure storage and key store. The seam turns it into an error
// number and a line of the log (answered.h).
#pragma once

#include <platform/secure_storage.h>

#include <stdexcept>
#include <string>

namespace secure {

/// The text names the cause and the cure, and never holds a secret. An empty text makes no line.
class Error : public std::runtime_error {
public:
    Error(ss_error_e code, const std::string& text) : std::runtime_error(text), m_code(code) {}
    ss_error_e code() const { return m_code; }

private:
    ss_error_e m_code;
};

}  // namespace secure
