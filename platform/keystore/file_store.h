// file_store.h - named data, each in a sealed file of its own, in one folder.
//
// A file is called by the SHA-256 of its client and its name, in hex, and ".data" behind it. It
// holds the eight bytes "BILLDAT1" and, sealed with AES-256-GCM, the data; the seal also vouches
// for these eight bytes, the client and the name, so that no file can be passed off as another. The
// key of the seals is the 32 random bytes of "store.key". "lock" is held while something is
// written. All have mode 0600.
#pragma once

#include "common/descriptor.h"
#include "common/secret_bytes.h"

#include <platform/secure_storage.h>

#include <optional>
#include <string>

namespace filestore {

/// Throws secure::Error. Thread: any, and any number of processes.
class Store {
public:
    /// @param folder made at the first write when its parent is there
    explicit Store(std::string folder) : m_folder(std::move(folder)) {}

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

}  // namespace filestore
