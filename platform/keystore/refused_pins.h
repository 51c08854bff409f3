// refused_pins.h - salted digests of the PINs that a token has refused. They keep a refused PIN from
// a second try, also after a restart.
#pragma once

#include "common/secret_bytes.h"

#include <deque>
#include <string>

namespace keystore {

/// Thread: one at a time.
class RefusedPins {
public:
    /// @param folder keeps the digests over restarts; without one (empty, or of another user) they end
    ///   with the process
    bool contains(const std::string& folder, const std::string& token, const secret::Bytes& pin);
    void add(const std::string& folder, const std::string& token, const secret::Bytes& pin);

private:
    void load(const std::string& folder);
    void save() const;
    std::string digest(const std::string& token, const secret::Bytes& pin) const;

    std::string m_folder;
    std::string m_salt;
    std::deque<std::string> m_digests;  ///< oldest first
};

}  // namespace keystore
