// configuration.h - settings of the key store, provided by the backend that compiles it in.
#pragma once

#include <optional>
#include <string>

namespace keystore {

/// Thread: any, for both functions.
struct Configuration {
    /// Current value of "module", "token", "pin_file", "store" or "seal_key".
    /// @return nullopt when it is not set
    std::optional<std::string> (*text)(const char* key);
    /// Logs that a needed value is not set, and the consequence.
    void (*reportMissing)(const char* key, const char* consequence);
};

/// Provided by the backend. The object lives as long as the process.
const Configuration& configuration();

}  // namespace keystore
