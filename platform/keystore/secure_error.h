// secure_error.h - what goes wrong in secure storage and key store, until the seam turns it into an
// error number and a line of the log.
#pragma once

#include <platform/secure_storage.h>

#include <stdexcept>
#include <string>

namespace secure {

/// Its text names the cause and the cure; an empty text is not worth a line. Never holds a secret.
class Error : public std::runtime_error {
public:
    Error(ss_error_e code, const std::string& text) : std::runtime_error(text), m_code(code) {}
    ss_error_e code() const { return m_code; }

private:
    ss_error_e m_code;
};

}  // namespace secure
