// pkcs11.h - a PKCS#11 module and a session on one of its tokens. There is no lock here: the caller
// lets one thread at a time use a module, since some modules crash otherwise.
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

/// An answer of a module other than CKR_OK.
class Failure : public secure::Error {
public:
    /// @param doing the attempt, as the subject of "... failed with CKR_..."
    Failure(CK_RV answer, const std::string& doing);
    CK_RV answer() const { return m_answer; }
    /// True if the token has compared the PIN and refused it, which counts towards its lock.
    bool isWrongPin() const;

private:
    CK_RV m_answer;
};

/// @throw Failure unless the answer is CKR_OK
void check(CK_RV answer, const char* doing);

/// A loaded module. It is neither finalised nor unloaded at the end of the process: another thread
/// may still be inside it.
class Module {
public:
    /// Loads and initialises a module. Later calls with the same path return the same one.
    /// @param path absolute
    /// @throw secure::Error
    static Module& at(const char* path);

    CK_FUNCTION_LIST& calls() const { return *m_calls; }
    /// Finalises and initialises the module, which ends all its sessions. Some modules look for
    /// tokens at initialisation only.
    void restart() const;
    /// The slot whose token has this label.
    /// @return nullopt when there is none
    /// @throw secure::Error when there are two
    std::optional<CK_SLOT_ID> slotOf(const std::string& label) const;
    /// All slots with a token, initialised or blank.
    std::vector<CK_SLOT_ID> slots() const;
    CK_TOKEN_INFO tokenIn(CK_SLOT_ID slot) const;
    static std::string labelOf(const CK_TOKEN_INFO& token);

private:
    explicit Module(CK_FUNCTION_LIST* calls) : m_calls(calls) { initialise(); }
    void initialise() const;

    CK_FUNCTION_LIST* m_calls;
};

/// Attributes of an object and the memory of their values.
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

/// An open session. The destructor closes it. A login counts for all sessions of the process on the
/// token.
class Session {
public:
    /// Calls login() on the session with the token's PIN.
    using GivePin = std::function<void(const Session& session)>;

    Session(const Module& module, CK_SLOT_ID slot, bool writable);
    /// Opens a further session on the same token.
    Session(const Session& other, bool writable);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// @param user CKU_USER, or CKU_CONTEXT_SPECIFIC for the signature under way
    void login(const secret::Bytes& pin, CK_USER_TYPE user) const;
    /// Changes the user's PIN. Needs a writable session.
    void setPin(const secret::Bytes& before, const secret::Bytes& after) const;
    /// Sets the login for keys that demand the PIN before each signature.
    void setGivePin(GivePin givePin) { m_givePin = std::move(givePin); }
    /// True if the session is open and logged in, and the token has this label.
    bool isAlive(const std::string& label) const;
    bool offers(CK_MECHANISM_TYPE mechanism) const;

    std::vector<CK_OBJECT_HANDLE> find(Attributes& attributes) const;
    /// @return nullopt when the object lacks or hides the attribute
    std::optional<secret::Bytes> value(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const;
    CK_OBJECT_HANDLE create(Attributes& attributes) const;
    void destroy(CK_OBJECT_HANDLE object) const;
    secret::Bytes sign(CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE key,
                       const unsigned char* bytes, std::size_t size) const;
    /// Makes an RSA key pair of 2048 bits. A slow token may take a minute.
    /// @return public and private object
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
