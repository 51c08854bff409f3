// soft_token.h - a software token for tests, in a temporary folder.
#pragma once

#include "device_conf.h"

#include <string>

namespace device {

/// Finds the software token's module.
/// @return empty when it is not installed
std::string softTokenModule();

/// An initialised token without keys. The constructor sets SOFTHSM2_CONF, so only one object may live
/// in a process at a time.
class SoftToken {
public:
    SoftToken();
    ~SoftToken();
    SoftToken(const SoftToken&) = delete;
    SoftToken& operator=(const SoftToken&) = delete;

    /// Adds another token with the same PIN.
    void add(const std::string& label) const;
    /// Removes all tokens, and brings them back.
    void pull() const;
    void putBack() const;

    const std::string& label() const { return m_label; }
    const std::string& pin() const { return m_pin; }
    const std::string& pinFile() const { return m_pinFile; }
    void writePin(const std::string& bytes, unsigned mode = 0600) const;
    /// The folder with configuration, PIN and tokens.
    const std::string& folder() const { return m_folder.path(); }
    std::string tokens() const { return folder() + "/tokens"; }

    /// Sets the four keys of [keystore] for this token.
    /// @param module softTokenModule() or a proxy in front of it
    void use(Conf& conf, const std::string& module) const;

private:
    Folder m_folder;
    std::string m_label = "billing-test";
    std::string m_pin = "87654321-pin";
    std::string m_pinFile;
};

}  // namespace device
