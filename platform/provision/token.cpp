// token.cpp - initialises a token: label and PINs.
#include "token.h"

#include "commands.h"
#include "files.h"
#include "stop.h"

#include <algorithm>
#include <iterator>

namespace provision {

namespace {

/// Finds the first slot with a blank token.
CK_SLOT_ID blankSlot(const pkcs11::Module& module, const std::string& path)
{
    for (const CK_SLOT_ID slot : module.slots()) {
        if ((module.tokenIn(slot).flags & CKF_TOKEN_INITIALIZED) == 0)
            return slot;
    }
    throw Stop(EXIT_FAILED, path + " has no token that is blank; clear one with its own tool");
}

/// A session of the security officer. The destructor logs out and closes it.
class OfficerSession {
public:
    OfficerSession(const pkcs11::Module& module, CK_SLOT_ID slot, secret::Bytes& pin)
        : m_calls(module.calls())
    {
        pkcs11::check(m_calls.C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr,
                                            nullptr, &m_handle),
                      "opening a session");
        const CK_RV answer = m_calls.C_Login(m_handle, CKU_SO, pin.data(), pin.size());
        if (answer != CKR_OK)
            m_calls.C_CloseSession(m_handle);
        pkcs11::check(answer, "the login");
    }
    ~OfficerSession()
    {
        m_calls.C_Logout(m_handle);
        m_calls.C_CloseSession(m_handle);
    }
    OfficerSession(const OfficerSession&) = delete;
    OfficerSession& operator=(const OfficerSession&) = delete;

    void setPin(secret::Bytes& pin) const
    {
        pkcs11::check(m_calls.C_InitPIN(m_handle, pin.data(), pin.size()), "setting the PIN");
    }

private:
    CK_FUNCTION_LIST& m_calls;
    CK_SESSION_HANDLE m_handle = 0;
};

/// @param path "-" for standard input
secret::Bytes pinFrom(const std::string& path)
{
    return path == "-" ? keystore::pinIn(readFile(path), "standard input")
                       : keystore::readPin(path);
}

}  // namespace

void initialiseToken(const keystore::Place& place, secret::Bytes soPin, secret::Bytes pin)
{
    CK_UTF8CHAR label[32];
    if (place.token.size() > sizeof label)
        throw Stop(EXIT_FAILED, "[keystore] token must have at most 32 bytes");
    std::fill(std::begin(label), std::end(label), static_cast<CK_UTF8CHAR>(' '));
    std::copy(place.token.begin(), place.token.end(), std::begin(label));
    const pkcs11::Module& module = pkcs11::Module::at(place.module.c_str());
    if (module.slotOf(place.token))
        throw Stop(EXIT_EXISTS,
                   "there is a token \"" + place.token + "\" already, which was left alone");
    pkcs11::check(module.calls().C_InitToken(blankSlot(module, place.module), soPin.data(),
                                             soPin.size(), label),
                  "giving a token its label");
    // The token has moved to another slot; the module lists it after a restart.
    module.restart();
    const auto slot = module.slotOf(place.token);
    if (!slot)
        throw Stop(EXIT_FAILED, place.module + " made no token");
    OfficerSession(module, *slot, soPin).setPin(pin);
}

void token(const TokenOptions& options)
{
    const keystore::Place place = keystore::placeFromSettings();
    secret::Bytes pin = keystore::readPin(place.pinFile);
    initialiseToken(place, pinFrom(options.soPin), std::move(pin));
    tell("Made the token \"" + place.token + "\". Next: billing-provision request");
}

void pin(const PinOptions& options)
{
    const keystore::Place place = keystore::placeFromSettings();
    const secret::Bytes before = keystore::readPin(place.pinFile);
    const secret::Bytes after = pinFrom(options.pin);
    keystore::instance().change(place, [&](const pkcs11::Session& session) {
        session.setPin(before, after);
        try {
            const std::string text(after.begin(), after.end());
            writeFile(place.pinFile, text + "\n", kSecretMode, true);
        } catch (const Stop&) {
            // Undoes the change: file and token must have the same PIN.
            session.setPin(after, before);
            throw;
        }
    });
    tell("Changed the PIN of the token \"" + place.token + "\", and " + place.pinFile + ".");
}

}  // namespace provision
