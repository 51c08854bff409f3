// fake_secure_storage.cpp - secure storage and key store of the scriptable backend, in memory.
#include "common/secure_rules.h"
#include "fake_state.h"

#include <platform/secure_storage.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

using fake::Secure;
using fake::SecureCall;

/// Records a call with its arguments.
/// @return the holder of the lock, and the error that the call has to return
struct Call {
    std::unique_lock<std::mutex> hold;
    Secure& secure;
    int failure;

    Call(SecureCall arguments, const std::string& key)
        : hold(fake::state().lock),
          secure(fake::state().secure),
          failure(secure.failureOf(arguments.function))
    {
        fake::state().happened(fake::Event::CALL,
                               arguments.function + (key.empty() ? "" : " " + key));
        secure.calls.push_back(std::move(arguments));
    }
};

SecureCall called(const char* function, const ss_credential_s* credential, bool restIsZero)
{
    SecureCall call;
    call.function = function;
    call.restIsZero = restIsZero;
    if (credential != nullptr)
        call.credential = *credential;
    return call;
}

SecureCall onData(const char* function, const ss_credential_s* credential, bool restIsZero,
                  const char* name, int flags)
{
    SecureCall call = called(function, credential, restIsZero);
    call.name = name == nullptr ? "" : name;
    call.flags = flags;
    return call;
}

SecureCall onKey(const char* function, const ss_credential_s* credential, bool restIsZero,
                 std::int32_t keyId)
{
    SecureCall call = called(function, credential, restIsZero);
    call.keyId = keyId;
    return call;
}

std::pair<Secure::Words, std::string> nameOf(const SecureCall& call)
{
    Secure::Words words;
    std::copy(std::begin(call.credential.words), std::end(call.credential.words), words.begin());
    return {words, call.name};
}

/// @return never null, also for no bytes
unsigned char* handOut(Secure& secure, const void* bytes, std::size_t size)
{
    auto* const buffer = static_cast<unsigned char*>(malloc(size + 1));
    if (buffer == nullptr)
        return nullptr;
    if (size != 0)
        memcpy(buffer, bytes, size);
    secure.buffersOut++;
    return buffer;
}

}  // namespace

int ss_init_credential(ss_credential_s* credential, uint32_t w0, uint32_t w1, uint32_t w2,
                       uint32_t w3, uint32_t w4, uint32_t kind, uint32_t reserved)
{
    const ss_credential_s filled{{w0, w1, w2, w3, w4}, kind, reserved};
    const Call call(called("ss_init_credential", &filled, reserved == 0), "");
    if (call.failure != 0)
        return call.failure;
    if (credential == nullptr || !securerules::isCredential(&filled))
        return SS_ERROR_PARAMETER;
    *credential = filled;
    return SS_ERROR_NONE;
}

int ss_read(unsigned char** buffer, size_t* size, int reserved1, int reserved2, const char* name,
            const ss_credential_s* credential, int flags)
{
    const SecureCall arguments =
        onData("ss_read", credential, reserved1 == 0 && reserved2 == 0, name, flags);
    const Call call(arguments, arguments.name);
    if (call.failure != 0)
        return call.failure;
    if (buffer == nullptr || size == nullptr || !securerules::areArguments(name, credential, flags))
        return SS_ERROR_PARAMETER;
    if (call.secure.readGivesNoBuffer)
        return SS_ERROR_NONE;
    const auto found = call.secure.data.find(nameOf(arguments));
    if (found == call.secure.data.end())
        return SS_ERROR_NOT_FOUND;
    unsigned char* const copy = handOut(call.secure, found->second.data(), found->second.size());
    if (copy == nullptr)
        return SS_ERROR_NO_MEMORY;
    *buffer = copy;
    *size = found->second.size();
    return SS_ERROR_NONE;
}

int ss_write(const unsigned char* data, size_t size, const void* reserved1, int reserved2,
             const char* name, const ss_credential_s* credential, int flags)
{
    SecureCall arguments =
        onData("ss_write", credential, reserved1 == nullptr && reserved2 == 0, name, flags);
    const bool isData = size <= securerules::kDataLimit && (data != nullptr || size == 0);
    arguments.size = size;
    if (isData && size != 0)
        arguments.data.assign(reinterpret_cast<const char*>(data), size);
    const Call call(arguments, arguments.name);
    if (call.failure != 0)
        return call.failure;
    if (!isData || !securerules::areArguments(name, credential, flags))
        return SS_ERROR_PARAMETER;
    call.secure.data[nameOf(arguments)] = arguments.data;
    return SS_ERROR_NONE;
}

int ss_delete(int reserved, const char* name, const ss_credential_s* credential, int flags)
{
    const SecureCall arguments = onData("ss_delete", credential, reserved == 0, name, flags);
    const Call call(arguments, arguments.name);
    if (call.failure != 0)
        return call.failure;
    if (!securerules::areArguments(name, credential, flags))
        return SS_ERROR_PARAMETER;
    return call.secure.data.erase(nameOf(arguments)) != 0 ? SS_ERROR_NONE : SS_ERROR_NOT_FOUND;
}

void ss_free_buffer(unsigned char* buffer)
{
    if (buffer == nullptr)
        return;
    fake::change([](fake::State& s) { s.secure.buffersOut--; });
    free(buffer);
}

int ss_store_rsa_key(const ss_credential_s* credential, int type, int use,
                     const unsigned char* modulus, size_t modulus_size,
                     const unsigned char* exponent, size_t exponent_size, int reserved1,
                     int reserved2, int32_t* key_id, int reserved3, int reserved4)
{
    SecureCall arguments =
        onKey("ss_store_rsa_key", credential,
              reserved1 == 0 && reserved2 == 0 && reserved3 == 0 && reserved4 == 0,
              key_id == nullptr ? 0 : *key_id);
    arguments.type = type;
    arguments.use = use;
    arguments.modulusSize = modulus_size;
    arguments.exponentSize = exponent_size;
    const Call call(arguments, std::to_string(arguments.keyId));
    if (call.failure != 0)
        return call.failure;
    if (!securerules::isCredential(credential) || type != SS_KEY_RSA || use != SS_KEY_SIGN ||
        key_id == nullptr)
        return SS_ERROR_PARAMETER;
    const auto key = rawrsa::recover(modulus, modulus_size, exponent, exponent_size);
    if (!key)
        return SS_ERROR_PARAMETER;
    std::int32_t id = call.secure.idOfStoredKey.value_or(*key_id);
    while (id == 0 || (id != *key_id && *key_id == 0 && call.secure.keys.count(id) != 0))
        id++;
    call.secure.keys[id] = std::make_shared<const rawrsa::PrivateKey>(*key);
    *key_id = id;
    return SS_ERROR_NONE;
}

int ss_encrypt_by_key(const ss_credential_s* credential, int32_t key_id, unsigned char** block,
                      size_t* size, int reserved1, int reserved2)
{
    SecureCall arguments =
        onKey("ss_encrypt_by_key", credential, reserved1 == 0 && reserved2 == 0, key_id);
    arguments.size = size == nullptr ? 0 : *size;
    const Call call(arguments, std::to_string(key_id));
    if (call.failure != 0)
        return call.failure;
    if (!securerules::isCredential(credential) || block == nullptr || *block == nullptr ||
        arguments.size != rawrsa::kBlockSize)
        return SS_ERROR_PARAMETER;
    const auto key = call.secure.keys.find(key_id);
    if (key == call.secure.keys.end())
        return SS_ERROR_NOT_FOUND;
    unsigned char result[rawrsa::kBlockSize];
    const Secure::Key numbers = key->second ? key->second : fake::deviceKey();
    if (!rawrsa::privateOperation(*numbers, *block, result))
        return SS_ERROR_PARAMETER;
    if (call.secure.wrongBlock)
        result[rawrsa::kBlockSize / 2] ^= 1;
    unsigned char* const copy = handOut(call.secure, result, call.secure.blockSize);
    if (copy == nullptr)
        return SS_ERROR_NO_MEMORY;
    *block = copy;
    *size = call.secure.blockSize;
    return SS_ERROR_NONE;
}

int ss_remove_key(const ss_credential_s* credential, int32_t key_id)
{
    const Call call(onKey("ss_remove_key", credential, true, key_id), std::to_string(key_id));
    if (call.failure != 0)
        return call.failure;
    if (!securerules::isCredential(credential))
        return SS_ERROR_PARAMETER;
    return call.secure.keys.erase(key_id) != 0 ? SS_ERROR_NONE : SS_ERROR_NOT_FOUND;
}
