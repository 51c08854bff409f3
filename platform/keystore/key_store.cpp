// key_store.cpp - access to the token.
#include "key_store.h"

#include "configuration.h"
#include "private_file.h"

#include <iterator>

namespace keystore {

namespace {

constexpr std::size_t kPinLimit = 256;

std::string needed(const char* key)
{
    const auto value = configuration().text(key);
    if (!value) {
        configuration().reportMissing(key, "the device's private key cannot be used");
        throw secure::Error(SS_ERROR_UNAVAILABLE, "");
    }
    return *value;
}

/// True if opening a new session can cure this error.
bool mayBeLost(const secure::Error& error, const pkcs11::Session& session, const Place& place)
{
    return error.code() == SS_ERROR_UNAVAILABLE ||
           (error.code() == SS_ERROR_NOT_FOUND && !session.isAlive(place.token));
}

}  // namespace

secret::Bytes pinIn(secret::Bytes bytes, const std::string& from)
{
    if (!bytes.empty() && bytes.back() == '\n')
        bytes.pop_back();
    if (!bytes.empty() && bytes.back() == '\r')
        bytes.pop_back();
    if (bytes.empty())
        throw secure::Error(SS_ERROR_ACCESS, from + " is empty; put the PIN there");
    return bytes;
}

secret::Bytes readPin(const std::string& path)
{
    return pinIn(privatefile::readSecret(path, kPinLimit), path);
}

Place placeFromSettings()
{
    return {needed("module"), needed("token"), needed("pin_file"),
            configuration().text("store").value_or("")};
}

KeyStore& instance()
{
    // Never destroyed: another thread may sign while the process ends.
    static auto* const store = new KeyStore;
    return *store;
}

void KeyStore::read(const Place& place, const Body& body)
{
    run(place, body);
}

void KeyStore::change(const Place& place, const Body& body)
{
    // PKCS#11 shares the login between the sessions of a process.
    run(place, [&](const pkcs11::Session& open) {
        const pkcs11::Session writable(open, true);
        body(writable);
    });
}

void KeyStore::run(const Place& place, const Body& body)
{
    const std::lock_guard<std::mutex> hold(m_lock);
    try {
        if (m_session != nullptr && !(m_place == place))
            m_session.reset();
        if (m_session != nullptr) {
            try {
                return body(*m_session);
            } catch (const secure::Error& error) {
                if (!mayBeLost(error, *m_session, place))
                    throw;
                m_session.reset();
            }
        }
        open(place);
        body(*m_session);
    } catch (const secure::Error& error) {
        if (error.code() == SS_ERROR_UNAVAILABLE)
            m_session.reset();
        throw secure::Error(
            error.code(), "token \"" + place.token + "\" of " + place.module + ": " + error.what());
    }
}

void KeyStore::open(const Place& place)
{
    pkcs11::Module& module = pkcs11::Module::at(place.module.c_str());
    m_place = place;
    try {
        connect(module, place);
    } catch (const secure::Error& error) {
        if (error.code() != SS_ERROR_UNAVAILABLE)
            throw;
        // Some modules find a token that was plugged in again only after a restart.
        module.restart();
        connect(module, place);
    }
}

void KeyStore::connect(const pkcs11::Module& module, const Place& place)
{
    const auto slot = module.slotOf(place.token);
    if (!slot)
        throw secure::Error(SS_ERROR_UNAVAILABLE,
                            "no such token; plug it in, or set [keystore] token to its label");
    auto session = std::make_unique<pkcs11::Session>(module, *slot, false);
    login(*session, place, CKU_USER);
    session->setGivePin([this, place](const pkcs11::Session& asking) {
        login(asking, place, CKU_CONTEXT_SPECIFIC);
    });
    m_session = std::move(session);
}

void KeyStore::login(const pkcs11::Session& session, const Place& place, CK_USER_TYPE user)
{
    const secret::Bytes pin = readPin(place.pinFile);
    const CK_TOKEN_INFO info = session.module().tokenIn(session.slot());
    // A token that was initialised again has another serial number and a full count of tries.
    const std::string token =
        place.module + '\0' + place.token + '\0' +
        std::string(std::begin(info.serialNumber), std::end(info.serialNumber));
    if (m_refused.contains(place.store, token, pin))
        throw secure::Error(SS_ERROR_ACCESS, "the PIN in " + place.pinFile +
                                                 " was refused before and is not tried again; put "
                                                 "the right one there");
    if ((info.flags & CKF_USER_PIN_FINAL_TRY) != 0)
        throw secure::Error(SS_ERROR_ACCESS,
                            "one more wrong PIN would lock it, so none is tried; log in once with "
                            "the token's own tool");
    try {
        session.login(pin, user);
    } catch (const pkcs11::Failure& failure) {
        if (failure.isWrongPin())
            m_refused.add(place.store, token, pin);
        throw;
    }
}

}  // namespace keystore
