// pkcs11.cpp - a PKCS#11 module and a session on one of its tokens.
#include "pkcs11.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

namespace pkcs11 {

namespace {

/// Larger than any result of a key of 2048 bits.
constexpr std::size_t kResultRoom = 1024;

/// More slots, or objects of one search, than any module has: a module that tells more is broken.
constexpr std::size_t kMost = 4096;

constexpr const char* kBack = "put the token back; it is looked for again at the next call";
constexpr const char* kAnew = "a new session is opened at the next call";
constexpr const char* kWhy =
    "see whether the token is there and what its module has logged; it is tried again at the next "
    "call";
constexpr const char* kPin = "put the right PIN into the PIN file; this one is not tried again";
constexpr const char* kInside = "make the key inside the token (billing-provision request)";
constexpr const char* kSee = "see the documentation of the token";
constexpr const char* kWritable = "make the token writable for this";

struct Answer {
    CK_RV value;
    const char* name;
    ss_error_e code;
    const char* cure;
};

#define NAMED(answer) answer, #answer

constexpr Answer kAnswers[] = {
    {NAMED(CKR_HOST_MEMORY), SS_ERROR_NO_MEMORY, "make memory free"},
    {NAMED(CKR_DEVICE_MEMORY), SS_ERROR_NO_MEMORY, "remove keys that are not used from the token"},
    {NAMED(CKR_GENERAL_ERROR), SS_ERROR_UNAVAILABLE, kWhy},
    {NAMED(CKR_FUNCTION_FAILED), SS_ERROR_UNAVAILABLE, kWhy},
    {NAMED(CKR_DEVICE_ERROR), SS_ERROR_UNAVAILABLE, kWhy},
    {NAMED(CKR_DEVICE_REMOVED), SS_ERROR_UNAVAILABLE, kBack},
    {NAMED(CKR_TOKEN_NOT_PRESENT), SS_ERROR_UNAVAILABLE, kBack},
    {NAMED(CKR_TOKEN_NOT_RECOGNIZED), SS_ERROR_UNAVAILABLE, kBack},
    {NAMED(CKR_SLOT_ID_INVALID), SS_ERROR_UNAVAILABLE, kBack},
    {NAMED(CKR_SESSION_CLOSED), SS_ERROR_UNAVAILABLE, kAnew},
    {NAMED(CKR_SESSION_HANDLE_INVALID), SS_ERROR_UNAVAILABLE, kAnew},
    {NAMED(CKR_USER_NOT_LOGGED_IN), SS_ERROR_UNAVAILABLE, kAnew},
    {NAMED(CKR_OBJECT_HANDLE_INVALID), SS_ERROR_UNAVAILABLE, kAnew},
    {NAMED(CKR_KEY_HANDLE_INVALID), SS_ERROR_UNAVAILABLE, kAnew},
    {NAMED(CKR_OPERATION_ACTIVE), SS_ERROR_UNAVAILABLE, kAnew},
    {NAMED(CKR_CRYPTOKI_NOT_INITIALIZED), SS_ERROR_UNAVAILABLE, kAnew},
    {NAMED(CKR_PIN_INCORRECT), SS_ERROR_ACCESS, kPin},
    {NAMED(CKR_PIN_INVALID), SS_ERROR_ACCESS, kPin},
    {NAMED(CKR_PIN_LEN_RANGE), SS_ERROR_ACCESS, kPin},
    {NAMED(CKR_PIN_EXPIRED), SS_ERROR_ACCESS, "set a new PIN with the token's own tool"},
    {NAMED(CKR_PIN_LOCKED), SS_ERROR_ACCESS, "unlock it with the token's own tool"},
    {NAMED(CKR_USER_PIN_NOT_INITIALIZED), SS_ERROR_ACCESS, "set a PIN with the token's own tool"},
    {NAMED(CKR_DATA_INVALID), SS_ERROR_PARAMETER, kSee},
    {NAMED(CKR_DATA_LEN_RANGE), SS_ERROR_PARAMETER, kSee},
    {NAMED(CKR_MECHANISM_INVALID), SS_ERROR_REFUSED, kSee},
    {NAMED(CKR_FUNCTION_NOT_SUPPORTED), SS_ERROR_REFUSED, kInside},
    {NAMED(CKR_ATTRIBUTE_TYPE_INVALID), SS_ERROR_REFUSED, kInside},
    {NAMED(CKR_ATTRIBUTE_VALUE_INVALID), SS_ERROR_REFUSED, kInside},
    {NAMED(CKR_TEMPLATE_INCOMPLETE), SS_ERROR_REFUSED, kInside},
    {NAMED(CKR_TEMPLATE_INCONSISTENT), SS_ERROR_REFUSED, kInside},
    {NAMED(CKR_ACTION_PROHIBITED), SS_ERROR_REFUSED, kInside},
    {NAMED(CKR_KEY_SIZE_RANGE), SS_ERROR_REFUSED, "it must do RSA with 2048 bits"},
    {NAMED(CKR_KEY_FUNCTION_NOT_PERMITTED), SS_ERROR_REFUSED, "the key must be one for signing"},
    {NAMED(CKR_TOKEN_WRITE_PROTECTED), SS_ERROR_REFUSED, kWritable},
    {NAMED(CKR_SESSION_READ_ONLY), SS_ERROR_REFUSED, kWritable},
};
#undef NAMED

const Answer* known(CK_RV value)
{
    for (const Answer& answer : kAnswers) {
        if (answer.value == value)
            return &answer;
    }
    return nullptr;
}

std::string describe(CK_RV value, const std::string& doing)
{
    const Answer* const answer = known(value);
    if (answer != nullptr)
        return doing + " failed with " + answer->name + "; " + answer->cure;
    char number[32];
    snprintf(number, sizeof number, "0x%lx", value);
    return doing + " failed with PKCS#11 answer " + number + "; " + kSee;
}

/// PKCS#11 pads text fields with blanks; some modules pad with NUL.
std::string trimmed(const unsigned char* field, std::size_t size)
{
    std::string text(reinterpret_cast<const char*>(field), size);
    text.erase(text.find_last_not_of(std::string_view(" \0", 2)) + 1);
    return text;
}

CK_FUNCTION_LIST* load(const std::string& path)
{
    const std::string cure = "; [keystore] module must be the absolute path of a PKCS#11 module";
    if (path.empty() || path.front() != '/')
        throw secure::Error(SS_ERROR_UNAVAILABLE, path + " is not an absolute path" + cure);
    void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* const reason = dlerror();
        throw secure::Error(SS_ERROR_UNAVAILABLE,
                            std::string(reason == nullptr ? path : reason) + cure);
    }
    const auto entry = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
    CK_FUNCTION_LIST* calls = nullptr;
    if (entry == nullptr || entry(&calls) != CKR_OK || calls == nullptr)
        throw secure::Error(SS_ERROR_UNAVAILABLE, path + " is no PKCS#11 module" + cure);
    return calls;
}

}  // namespace

Failure::Failure(CK_RV answer, const std::string& doing)
    : secure::Error(known(answer) != nullptr ? known(answer)->code : SS_ERROR_UNAVAILABLE,
                    describe(answer, doing)),
      m_answer(answer)
{
}

bool Failure::isWrongPin() const
{
    return m_answer == CKR_PIN_INCORRECT || m_answer == CKR_PIN_INVALID ||
           m_answer == CKR_PIN_LEN_RANGE;
}

void check(CK_RV answer, const char* doing)
{
    if (answer != CKR_OK)
        throw Failure(answer, doing);
}

Module& Module::at(const char* path)
{
    // Never destroyed, like the modules in it.
    static auto* const modules = new std::map<std::string, std::unique_ptr<Module>>;
    auto& module = (*modules)[path];
    if (module == nullptr)
        module.reset(new Module(load(path)));
    return *module;
}

namespace {

/// Numbers that a module tells are not used unseen: as a size they would cost any memory, or be read beyond it.
void checkCount(std::size_t count, std::size_t most, const char* doing)
{
    if (count > most)
        throw secure::Error(
            SS_ERROR_BROKEN,
            std::string(doing) + ": the module tells more than there can be; replace it");
}

}  // namespace

void Module::initialise() const
{
    CK_C_INITIALIZE_ARGS arguments{};
    arguments.flags = CKF_OS_LOCKING_OK;
    CK_RV answer = m_calls->C_Initialize(&arguments);
    // The module need not lock: KeyStore lets one thread in at a time.
    if (answer == CKR_CANT_LOCK || answer == CKR_ARGUMENTS_BAD)
        answer = m_calls->C_Initialize(nullptr);
    if (answer != CKR_CRYPTOKI_ALREADY_INITIALIZED)
        check(answer, "the start of the module");
}

void Module::restart() const
{
    m_calls->C_Finalize(nullptr);
    initialise();
}

std::vector<CK_SLOT_ID> Module::slots() const
{
    std::vector<CK_SLOT_ID> found;
    CK_RV answer = CKR_BUFFER_TOO_SMALL;
    // A token that is plugged in between the two calls makes the list longer than its count.
    for (int tries = 0; answer == CKR_BUFFER_TOO_SMALL && tries < 5; tries++) {
        CK_ULONG count = 0;
        check(m_calls->C_GetSlotList(CK_TRUE, nullptr, &count), "the search for tokens");
        if (count == 0)
            return {};
        checkCount(count, kMost, "the search for tokens");
        found.resize(count);
        answer = m_calls->C_GetSlotList(CK_TRUE, found.data(), &count);
        if (answer == CKR_OK) {
            checkCount(count, found.size(), "the search for tokens");
            found.resize(count);
        }
    }
    check(answer, "the search for tokens");
    return found;
}

CK_TOKEN_INFO Module::tokenIn(CK_SLOT_ID slot) const
{
    CK_TOKEN_INFO token{};
    check(m_calls->C_GetTokenInfo(slot, &token), "asking a token for its name");
    return token;
}

std::string Module::labelOf(const CK_TOKEN_INFO& token)
{
    return trimmed(token.label, sizeof token.label);
}

std::optional<CK_SLOT_ID> Module::slotOf(const std::string& label) const
{
    std::optional<CK_SLOT_ID> found;
    for (const CK_SLOT_ID slot : slots()) {
        CK_TOKEN_INFO token{};
        // A token that is being removed fails here; the search goes on with the others.
        if (m_calls->C_GetTokenInfo(slot, &token) != CKR_OK || labelOf(token) != label)
            continue;
        if (found)
            throw secure::Error(SS_ERROR_UNAVAILABLE,
                                "two tokens have this label; give them different ones");
        found = slot;
    }
    return found;
}

Attributes& Attributes::bytes(CK_ATTRIBUTE_TYPE type, const void* value, std::size_t size)
{
    const auto* const first = static_cast<const unsigned char*>(value);
    m_values.emplace_back(first, first + size);
    m_attributes.push_back({type, m_values.back().data(), m_values.back().size()});
    return *this;
}

Attributes& Attributes::bytes(CK_ATTRIBUTE_TYPE type, const secret::Bytes& value)
{
    return bytes(type, value.data(), value.size());
}

Attributes& Attributes::text(CK_ATTRIBUTE_TYPE type, std::string_view value)
{
    return bytes(type, value.data(), value.size());
}

Attributes& Attributes::flag(CK_ATTRIBUTE_TYPE type, bool value)
{
    const CK_BBOOL byte = value ? CK_TRUE : CK_FALSE;
    return bytes(type, &byte, sizeof byte);
}

Attributes& Attributes::number(CK_ATTRIBUTE_TYPE type, CK_ULONG value)
{
    return bytes(type, &value, sizeof value);
}

Session::Session(const Module& module, CK_SLOT_ID slot, bool writable)
    : m_module(module), m_slot(slot)
{
    const CK_FLAGS flags = CKF_SERIAL_SESSION | (writable ? CKF_RW_SESSION : 0);
    check(m_module.calls().C_OpenSession(slot, flags, nullptr, nullptr, &m_handle),
          "opening a session");
}

Session::Session(const Session& other, bool writable)
    : Session(other.m_module, other.m_slot, writable)
{
    m_givePin = other.m_givePin;
}

Session::~Session()
{
    m_module.calls().C_CloseSession(m_handle);
}

void Session::login(const secret::Bytes& pin, CK_USER_TYPE user) const
{
    secret::Bytes copy = pin;  // C_Login takes a pointer to non-const
    const CK_RV answer = m_module.calls().C_Login(m_handle, user, copy.data(), copy.size());
    if (user != CKU_USER || answer != CKR_USER_ALREADY_LOGGED_IN)
        check(answer, "the login");
}

void Session::setPin(const secret::Bytes& before, const secret::Bytes& after) const
{
    secret::Bytes old = before;  // C_SetPIN takes pointers to non-const
    secret::Bytes fresh = after;
    check(m_module.calls().C_SetPIN(m_handle, old.data(), old.size(), fresh.data(), fresh.size()),
          "changing the PIN");
}

bool Session::isAlive(const std::string& label) const
{
    CK_SESSION_INFO session{};
    CK_TOKEN_INFO token{};
    return m_module.calls().C_GetSessionInfo(m_handle, &session) == CKR_OK &&
           (session.state == CKS_RO_USER_FUNCTIONS || session.state == CKS_RW_USER_FUNCTIONS) &&
           m_module.calls().C_GetTokenInfo(m_slot, &token) == CKR_OK &&
           Module::labelOf(token) == label;
}

bool Session::offers(CK_MECHANISM_TYPE mechanism) const
{
    CK_MECHANISM_INFO info{};
    return m_module.calls().C_GetMechanismInfo(m_slot, mechanism, &info) == CKR_OK &&
           (info.flags & CKF_SIGN) != 0;
}

std::vector<CK_OBJECT_HANDLE> Session::find(Attributes& attributes) const
{
    const CK_FUNCTION_LIST& calls = m_module.calls();
    std::vector<CK_OBJECT_HANDLE> found;
    check(calls.C_FindObjectsInit(m_handle, attributes.data(), attributes.size()),
          "the search for a key");
    CK_OBJECT_HANDLE room[16];
    CK_ULONG count = 0;
    CK_RV answer = CKR_OK;
    do {
        answer = calls.C_FindObjects(m_handle, room, std::size(room), &count);
        if (answer == CKR_OK)
            found.insert(found.end(), room, room + std::min<std::size_t>(count, std::size(room)));
    } while (answer == CKR_OK && count != 0 && count <= std::size(room) && found.size() <= kMost);
    calls.C_FindObjectsFinal(m_handle);
    check(answer, "the search for a key");
    checkCount(count, std::size(room), "the search for a key");
    checkCount(found.size(), kMost, "the search for a key");
    return found;
}

std::optional<secret::Bytes> Session::value(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const
{
    const CK_FUNCTION_LIST& calls = m_module.calls();
    CK_ATTRIBUTE attribute{type, nullptr, 0};
    CK_RV answer = calls.C_GetAttributeValue(m_handle, object, &attribute, 1);
    if (answer == CKR_ATTRIBUTE_TYPE_INVALID || answer == CKR_ATTRIBUTE_SENSITIVE)
        return std::nullopt;
    check(answer, "reading the public part of a key");
    if (attribute.ulValueLen > kResultRoom)
        return std::nullopt;
    secret::Bytes bytes(attribute.ulValueLen);
    attribute.pValue = bytes.data();
    answer = calls.C_GetAttributeValue(m_handle, object, &attribute, 1);
    check(answer, "reading the public part of a key");
    bytes.resize(std::min<std::size_t>(bytes.size(), attribute.ulValueLen));
    return bytes;
}

CK_OBJECT_HANDLE Session::create(Attributes& attributes) const
{
    CK_OBJECT_HANDLE object = 0;
    check(m_module.calls().C_CreateObject(m_handle, attributes.data(), attributes.size(), &object),
          "the import of a key");
    return object;
}

void Session::destroy(CK_OBJECT_HANDLE object) const
{
    check(m_module.calls().C_DestroyObject(m_handle, object), "the removal of a key");
}

/// False for a module that does not know the attribute.
bool Session::asksEachTime(CK_OBJECT_HANDLE key) const
{
    CK_BBOOL asks = CK_FALSE;
    CK_ATTRIBUTE attribute{CKA_ALWAYS_AUTHENTICATE, &asks, sizeof asks};
    return m_module.calls().C_GetAttributeValue(m_handle, key, &attribute, 1) == CKR_OK &&
           asks == CK_TRUE;
}

secret::Bytes Session::sign(CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE key,
                            const unsigned char* bytes, std::size_t size) const
{
    if (!asksEachTime(key)) {
        startSigning(mechanism, key);
        return finishSigning(bytes, size);
    }
    // After a refused PIN only the end of the session is sure to cancel the signature.
    const Session own(*this, false);
    own.startSigning(mechanism, key);
    if (own.m_givePin)
        own.m_givePin(own);
    return own.finishSigning(bytes, size);
}

void Session::startSigning(CK_MECHANISM_TYPE mechanism, CK_OBJECT_HANDLE key) const
{
    CK_MECHANISM how{mechanism, nullptr, 0};
    check(m_module.calls().C_SignInit(m_handle, &how, key), "the start of a signature");
}

secret::Bytes Session::finishSigning(const unsigned char* bytes, std::size_t size) const
{
    // C_Sign takes a pointer to non-const, and some modules refuse null for an empty input.
    secret::Bytes input(size + 1);
    std::copy(bytes, bytes + size, input.begin());
    secret::Bytes result(kResultRoom);
    CK_ULONG length = result.size();
    check(m_module.calls().C_Sign(m_handle, input.data(), size, result.data(), &length),
          "a signature");
    result.resize(std::min<std::size_t>(result.size(), length));
    return result;
}

std::vector<CK_OBJECT_HANDLE> Session::generate(Attributes& publicKey, Attributes& privateKey) const
{
    CK_MECHANISM how{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
    std::vector<CK_OBJECT_HANDLE> made(2);
    check(m_module.calls().C_GenerateKeyPair(m_handle, &how, publicKey.data(), publicKey.size(),
                                             privateKey.data(), privateKey.size(), &made[0],
                                             &made[1]),
          "making a key");
    return made;
}

}  // namespace pkcs11
