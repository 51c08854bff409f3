// fake_secure.h - contents and faults of the fake's secure storage, key store and crypto container.
#pragma once

#include "common/raw_rsa.h"
#include "fake_platform.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace fake {

/// Part of the state; its lock guards this too.
struct Secure {
    using Key = std::shared_ptr<const rawrsa::PrivateKey>;

    using Words = std::array<std::uint32_t, 5>;

    /// Each client has its own names.
    std::map<std::pair<Words, std::string>, std::string> data;
    /// Null means the device key, which is made at its first use.
    std::map<std::int32_t, Key> keys;

    std::optional<Words> credential;
    std::optional<std::int32_t> keyId;
    std::optional<std::string> keyMaterial;

    std::map<std::string, int> failures;
    std::map<std::string, int> nextFailures;
    bool readGivesNoBuffer = false;
    std::size_t blockSize = rawrsa::kBlockSize;
    bool wrongBlock = false;
    std::optional<std::int32_t> idOfStoredKey;
    bool wrongDecryption = false;

    std::vector<SecureCall> calls;
    int buffersOut = 0;
    int containersOut = 0;

    Secure() { reset(); }
    /// Restores a working device. Keeps the counts of buffers and containers.
    void reset();
    /// The error that the function has to return now; 0 for none.
    int failureOf(const std::string& function);
    /// Named data of the service's own client.
    std::pair<Words, std::string> ownName(const std::string& name) const
    {
        return {credential.value_or(Words{}), name};
    }
};

/// The only device key of the process.
Secure::Key deviceKey();

}  // namespace fake
