// vault.h - named data, each in a sealed file of its own, in one folder.
//
// File name: SHA-256 of client and name in hex, then ".data". Content: the eight bytes "BILLDAT1",
// then the data sealed with AES-256-GCM. The associated data of the seal are these eight bytes, the
// client and the name: a file that takes the place of another one does not open. "store.key" holds
// the key, 32 random bytes. A writer locks "lock". All files have mode 0600.
#pragma once

#include "common/descriptor.h"
#include "common/secret_bytes.h"

#include <platform/secure_storage.h>

#include <optional>
#include <string>

namespace keystore {

/// Each function throws secure::Error. Thread: any, also in several processes at once.
class Vault {
public:
    /// @param folder the first write makes it; its parent must exist
    explicit Vault(std::string folder) : m_folder(std::move(folder)) {}

    /// Throws SS_ERROR_NOT_FOUND, without a text, when there is no such name.
    secret::Bytes read(const ss_credential_s& client, const std::string& name) const;
    void write(const ss_credential_s& client, const std::string& name, const unsigned char* data,
               std::size_t size) const;
    /// Throws SS_ERROR_NOT_FOUND, without a text, when there is no such name.
    void remove(const ss_credential_s& client, const std::string& name) const;

private:
    bool exists() const;
    std::optional<secret::Bytes> key(const Descriptor& folder) const;
    secret::Bytes keyOrNew(const Descriptor& folder) const;

    std::string m_folder;
};

}  // namespace keystore
