// refused_pins.h - the PINs that a token has refused, as salted digests, so that none of them is a
// second try: not after a restart either.
#pragma once

#include "common/secret_bytes.h"

#include <deque>
#include <string>

namespace keystore {

/// Thread: one at a time.
class RefusedPins {
public:
    /// @param folder where the digests outlive the process; empty, or of no use: they do not
    bool contains(const std::string& folder, const std::string& token, const secret::Bytes& pin);
    void add(const std::string& folder, const std::string& token, const secret::Bytes& pin);

private:
    void load(const std::string& folder);
    void save() const;
    std::string digest(const std::string& token, const secret::Bytes& pin) const;

    std::string m_folder;
    std::string m_salt;
    std::deque<std::string> m_digests;  ///< the oldest first
};

}  // namespace keystore
