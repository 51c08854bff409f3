// configuration.h - what a backend tells the key store that it compiles in.
#pragma once

#include <optional>
#include <string>

namespace keystore {

/// Thread: any, for both functions.
struct Configuration {
    /// One value as it stands now: "module", "token", "pin_file", "store", "seal_key". @return nullopt when it is not set
    std::optional<std::string> (*text)(const char* key);
    /// Logs that a value which is needed now is not set, and what follows from that.
    void (*reportMissing)(const char* key, const char* consequence);
};

/// Provided by the backend. The object lives as long as the process.
const Configuration& configuration();

}  // namespace keystore
