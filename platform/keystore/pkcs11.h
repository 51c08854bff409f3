// pkcs11.h - a PKCS#11 module and a session on one of its tokens. Nothing here locks: one thread at
// a time for a module, since some modules crash when two threads are in them.
#pragma once

#include "common/secret_bytes.h"
#include "secure_error.h"

#include <p11-kit/pkcs11.h>

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pkcs11 {

/// What a module answered, other than CKR_OK.
class Failure : public secure::Error {
public:
    /// @param doing what was tried, to be read before "failed with CKR_..."
    Failure(CK_RV answer, const std::string& doing);
    CK_RV answer() const { return m_answer; }
    /// The token has looked at a PIN and refused it, which counts towards locking it.
    bool isWrongPin() const;

private:
    CK_RV m_answer;
};

/// @throw Failure unless the answer is CKR_OK
void check(CK_RV answer, const char* doing);

/// A loaded module. It is never unloaded nor finalised at the end of the process, where other
/// threads may still be in it.
class Module {
public:
    /// Loads and initialises a module, or hands out the one that was loaded before.
    /// @param path absolute @throw secure::Error
    static Module& at(const std::string& path);

    CK_FUNCTION_LIST& calls() const { return *m_calls; }
    /// Finalises and initialises it, which ends all its sessions: some modules look for tokens only
    /// then.
    void restart() const;
    /// The slot with the token of this label. @return nullopt when there is none; throws when there
    /// are two
    std::optional<CK_SLOT_ID> slotOf(const std::string& label) const;
    /// Slots with a token, of those that have a label already or of those that have none.
    std::vector<CK_SLOT_ID> slots() const;
    CK_TOKEN_INFO tokenIn(CK_SLOT_ID slot) const;
    static std::string labelOf(const CK_TOKEN_INFO& token);

private:
    explicit Module(CK_FUNCTION_LIST* calls) : m_calls(calls) { initialise(); }
    void initialise() const;

    CK_FUNCTION_LIST* m_calls;
};

/// Attributes of an object, with their values.
class Attributes {
public:
    Attributes& flag(CK_ATTRIBUTE_TYPE type, bool value);
    Attributes& number(CK_ATTRIBUTE_TYPE type, CK_ULONG value);
    Attributes& bytes(CK_ATTRIBUTE_TYPE type, const void* value, std::size_t size);
    Attributes& bytes(CK_ATTRIBUTE_TYPE type, const secret::Bytes& value);
    Attributes& text(CK_ATTRIBUTE_TYPE type, std::string_view value);

    CK_ATTRIBUTE* data() { return m_attributes.data(); }
    CK_ULONG size() const { return m_attributes.size(); }

private:
    std::deque<secret::Bytes> m_values;
    std::vector<CK_ATTRIBUTE> m_attributes;
};

/// An open session. Ended by the destructor. The login belongs to the module's token: it holds for
/// every session of the process.
class Session {
public:
    /// Gives the token its PIN on this session, by login().
    using GivePin = std::function<void(const Session& session)>;

    Session(const Module& module, CK_SLOT_ID slot, bool writable);
    /// Another one on the same token.
    Session(const Session& other, bool writable);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// @param user CKU_USER, or CKU_CONTEXT_SPECIFIC for the signature that was begun
    void login(const secret::Bytes& pin, CK_USER_TYPE user) const;
    /// Gives the user another PIN, on a writable session.
    void setPin(const secret::Bytes& before, const secret::Bytes& after) const;
    /// For keys that want the PIN before each signature.
    void setGivePin(GivePin givePin) { m_givePin = std::move(givePin); }
    /// Is the session still there, logged in, and the token the one of this label?
    bool isAlive(const std::string& label) const;
    bool offers(CK_MECHANISM_TYPE mechanism) const;

    std::vector<CK_OBJECT_HANDLE> find(Attributes& attributes) const;
    /// @return nullopt when the object does not have or show it
    std::optional<secret::Bytes> value(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const;
    CK_OBJECT_HANDLE create(Attributes& attributes) const;
    void destroy(CK_OBJECT_HANDLE object) const;
    secret::Bytes sign(CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE key,
                       const unsigned char* bytes, std::size_t size) const;
    /// Makes a pair of RSA keys with 2048 bits. May take a minute on a slow token. @return both
    std::vector<CK_OBJECT_HANDLE> generate(Attributes& publicKey, Attributes& privateKey) const;

    const Module& module() const { return m_module; }
    CK_SLOT_ID slot() const { return m_slot; }

private:
    bool asksEachTime(CK_OBJECT_HANDLE key) const;
    void startSigning(CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE key) const;
    secret::Bytes finishSigning(const unsigned char* bytes, std::size_t size) const;

    const Module& m_module;
    CK_SLOT_ID m_slot;
    GivePin m_givePin;
    CK_SESSION_HANDLE m_handle = 0;
};

}  // namespace pkcs11
