// key_store.h - the process's way to its token: one module, one open session, one login, one caller
// at a time.
#pragma once

#include "refused_pins.h"
#include "token_keys.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace keystore {

/// Where the keys are.
struct Place {
    std::string module;      ///< path of a PKCS#11 module
    std::string token;       ///< the token's label
    std::string pinFile;     ///< mode 0600; one line break at its end does not count
    std::string store = {};  ///< folder where refused PINs are remembered; may be empty

    bool operator==(const Place& other) const
    {
        return module == other.module && token == other.token && pinFile == other.pinFile &&
               store == other.store;
    }
};

/// From [keystore]. @throw secure::Error when a setting is missing, which has been logged
Place placeFromSettings();

/// A PIN without the one line break behind it. @param from what an error text calls the source
/// @throw secure::Error when nothing is left
secret::Bytes pinIn(secret::Bytes bytes, const std::string& from);
/// The PIN in a file that nobody else may read. @throw secure::Error
secret::Bytes readPin(const std::string& path);

/// Thread: any; callers wait for each other, as long as the token takes.
class KeyStore {
public:
    using Body = std::function<void(const pkcs11::Session& session)>;

    /// Runs the body on the open session, logged in. A session that is lost is opened once more,
    /// and the body run once more. A PIN that the token refused is not tried again: not until the
    /// PIN, the token or the module is another, in this process or a later one.
    /// @throw secure::Error
    void read(const Place& place, const Body& body);
    /// The same on a session that may change the token.
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

/// The one of the process.
KeyStore& instance();

}  // namespace keystore
