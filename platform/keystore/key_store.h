// key_store.h - access to the token: one module, one open session, one login, one caller at a
// time.
#pragma once

#include "refused_pins.h"
#include "token_keys.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace keystore {

/// Location of the keys.
struct Place {
    std::string module;      ///< path of a PKCS#11 module
    std::string token;       ///< the token's label
    std::string pinFile;     ///< mode 0600; one line break at its end is ignored
    std::string store = {};  ///< folder for the digests of refused PINs; may be empty

    bool operator==(const Place& other) const
    {
        return module == other.module && token == other.token && pinFile == other.pinFile &&
               store == other.store;
    }
};

/// Reads [keystore].
/// @throw secure::Error when a setting is missing; the log has a line then
Place placeFromSettings();

/// Removes one line break from the end of a PIN.
/// @param from name of the source in an error text
/// @throw secure::Error when the PIN is empty
secret::Bytes pinIn(secret::Bytes bytes, const std::string& from);
/// Reads the PIN from a file with mode 0600.
/// @throw secure::Error
secret::Bytes readPin(const std::string& path);

/// Thread: any; a call waits for the others, for as long as the token takes.
class KeyStore {
public:
    using Body = std::function<void(const pkcs11::Session& session)>;

    /// Runs the body on the open session, logged in. After the loss of a session the body runs once
    /// more, on a new session. A refused PIN is not tried again, in this process or a later one,
    /// until PIN, token or module change.
    /// @throw secure::Error
    void read(const Place& place, const Body& body);
    /// As read(), on a session that may change the token.
    void change(const Place& place, const Body& body);

private:
    void run(const Place& place, const Body& body);
    void open(const Place& place);
    void connect(const pkcs11::Module& module, const Place& place);
    void login(const pkcs11::Session& session, const Place& place, CK_USER_TYPE user);

    std::mutex m_lock;
    Place m_place;
    std::unique_ptr<pkcs11::Session> m_session;
    RefusedPins m_refused;
};

/// The only instance of the process.
KeyStore& instance();

}  // namespace keystore
