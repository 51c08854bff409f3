// soft_token.h - a software token of the tests' own, in a temporary folder.
#pragma once

#include "device_conf.h"

#include <string>

namespace device {

/// Finds the software token's module. @return empty when it is not installed
std::string softTokenModule();

/// Initialised, without keys. SOFTHSM2_CONF is set for it;
/// one of these lives in a process at a time.
class SoftToken {
public:
    SoftToken();
    ~SoftToken();
    SoftToken(const SoftToken&) = delete;
    SoftToken& operator=(const SoftToken&) = delete;

    /// Another token beside it, with the same PIN.
    void add(const std::string& label) const;
    /// Away with all tokens, and back.
    void pull() const;
    void putBack() const;

    const std::string& label() const { return m_label; }
    const std::string& pin() const { return m_pin; }
    const std::string& pinFile() const { return m_pinFile; }
    void writePin(const std::string& bytes, unsigned mode = 0600) const;
    /// The folder of all of it.
    const std::string& folder() const { return m_folder.path(); }
    std::string tokens() const { return folder() + "/tokens"; }

    /// Sets the four keys of [keystore] for it. @param module softTokenModule() or one in front of it
    void use(Conf& conf, const std::string& module) const;

private:
    Folder m_folder;
    std::string m_label = "billing-test";
    std::string m_pin = "87654321-pin";
    std::string m_pinFile;
};

}  // namespace device
