// fake_crypto_container.cpp - crypto container of the scriptable backend, and the deployment's
// share in keys. Any text may be the sealed key material: it stands for the device key.
#include "fake_state.h"

#include <platform/crypto_container.h>
#include <platform/deployment.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kFailed = 1;

struct Container : CryptoCoreContainer {
    std::optional<rawrsa::PublicKey> key;
};

Container& of(CryptoCoreContainer* self)
{
    return *static_cast<Container*>(self);
}

/// Records a call.
/// @return the error that the call has to return
int noted(const char* function)
{
    int failure = 0;
    fake::change([&](fake::State& s) {
        s.happened(fake::Event::CALL, function);
        failure = s.secure.failureOf(function);
    });
    return failure;
}

template <typename Value>
Value setting(Value fake::Secure::*member)
{
    const std::lock_guard<std::mutex> hold(fake::state().lock);
    return fake::state().secure.*member;
}

int setPublicKey(CryptoCoreContainer* self, const unsigned char* modulus, std::size_t modulusSize,
                 const unsigned char* exponent, std::size_t exponentSize)
{
    if (const int failure = noted("set_public_key"))
        return failure;
    of(self).key = rawrsa::publicKey(modulus, modulusSize, exponent, exponentSize);
    return of(self).key ? 0 : kFailed;
}

int aeDecrypt(CryptoCoreContainer* self, const unsigned char* in, std::size_t inSize,
              unsigned char* out, std::size_t* outSize)
{
    if (const int failure = noted("ae_decrypt"))
        return failure;
    if (!of(self).key || in == nullptr || inSize != rawrsa::kBlockSize || out == nullptr ||
        outSize == nullptr || *outSize < rawrsa::kBlockSize ||
        !rawrsa::publicOperation(*of(self).key, in, out))
        return kFailed;
    if (setting(&fake::Secure::wrongDecryption))
        out[rawrsa::kBlockSize / 2] ^= 1;
    *outSize = rawrsa::kBlockSize;
    return 0;
}

void copyPadded(const secret::Bytes& number, unsigned char out[rawrsa::kPartSize])
{
    memset(out, 0, rawrsa::kPartSize);
    std::copy(number.begin(), number.end(), out + rawrsa::kPartSize - number.size());
}

int openKeyMaterial(CryptoCoreContainer* self, const unsigned char* sealed, std::size_t sealedSize,
                    unsigned char modulus[rawrsa::kPartSize],
                    unsigned char exponent[rawrsa::kPartSize])
{
    if (const int failure = noted("open_key_material"))
        return failure;
    const auto device = fake::deviceKey();
    const auto material = setting(&fake::Secure::keyMaterial);
    if (modulus == nullptr || exponent == nullptr)
        return kFailed;
    if (!material || sealed == nullptr || sealedSize != material->size() ||
        memcmp(sealed, material->data(), sealedSize) != 0)
        return kFailed;
    if (!of(self).key || of(self).key->modulus != device->modulus ||
        of(self).key->exponent != device->publicExponent)
        return kFailed;
    copyPadded(device->modulus, modulus);
    copyPadded(device->privateExponent, exponent);
    return 0;
}

}  // namespace

int create_CryptoCoreContainer(int algorithm, CryptoCoreContainer** container)
{
    if (const int failure = noted("create_CryptoCoreContainer"))
        return failure;
    if (algorithm != CC_RSA || container == nullptr)
        return kFailed;
    auto* const made = new Container;
    made->set_public_key = setPublicKey;
    made->ae_decrypt = aeDecrypt;
    made->open_key_material = openKeyMaterial;
    made->context = made;
    fake::change([](fake::State& s) { s.secure.containersOut++; });
    *container = made;
    return 0;
}

void destroy_CryptoCoreContainer(CryptoCoreContainer* container)
{
    if (container == nullptr)
        return;
    fake::change([](fake::State& s) { s.secure.containersOut--; });
    delete &of(container);
}

int deployment_get_credential(uint32_t words[5])
{
    if (const int failure = noted("deployment_get_credential"))
        return failure;
    const auto set = setting(&fake::Secure::credential);
    if (!set) {
        __dlog_print(DLOG_ERROR, "BILLING_PLATFORM", "credential is not set");
        return kFailed;
    }
    std::copy(set->begin(), set->end(), words);
    return 0;
}

int deployment_get_key_id(int32_t* key_id)
{
    if (const int failure = noted("deployment_get_key_id"))
        return failure;
    const auto set = setting(&fake::Secure::keyId);
    if (!set || *set == 0) {
        __dlog_print(DLOG_ERROR, "BILLING_PLATFORM", "key_id is not set");
        return kFailed;
    }
    *key_id = *set;
    return 0;
}

int deployment_get_key_material(unsigned char** sealed, size_t* size)
{
    if (const int failure = noted("deployment_get_key_material"))
        return failure;
    const auto set = setting(&fake::Secure::keyMaterial);
    auto* const copy = set ? static_cast<unsigned char*>(malloc(set->size() + 1)) : nullptr;
    if (copy == nullptr)
        return kFailed;
    std::copy(set->begin(), set->end(), copy);
    *sealed = copy;
    *size = set->size();
    return 0;
}
