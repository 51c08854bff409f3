// crypto_container.cpp - the crypto container: public operation by OpenSSL, sealed key material by
// the device's secret.
#include "answered.h"
#include "common/raw_rsa.h"
#include "configuration.h"
#include "key_material.h"

#include <platform/crypto_container.h>

#include <algorithm>

namespace {

constexpr const char* kArea = "crypto container";

struct Container : CryptoCoreContainer {
    std::optional<rawrsa::PublicKey> key;
};

void require(bool holds)
{
    if (!holds)
        throw secure::Error(SS_ERROR_PARAMETER, "");
}

Container& of(CryptoCoreContainer* self)
{
    require(self != nullptr);
    return *static_cast<Container*>(self);
}

int setPublicKey(CryptoCoreContainer* self, const unsigned char* modulus, std::size_t modulusSize,
                 const unsigned char* exponent, std::size_t exponentSize)
{
    return seam::answered(kArea, [&] {
        of(self).key = rawrsa::publicKey(modulus, modulusSize, exponent, exponentSize);
        require(of(self).key.has_value());
    });
}

int aeDecrypt(CryptoCoreContainer* self, const unsigned char* in, std::size_t inSize,
              unsigned char* out, std::size_t* outSize)
{
    return seam::answered(kArea, [&] {
        require(of(self).key && in != nullptr && inSize == rawrsa::kBlockSize && out != nullptr &&
                outSize != nullptr && *outSize >= rawrsa::kBlockSize &&
                rawrsa::publicOperation(*of(self).key, in, out));
        *outSize = rawrsa::kBlockSize;
    });
}

/// Adds a zero byte in front, so that a reader of signed numbers takes it for positive.
void give(const secret::Bytes& number, unsigned char* out)
{
    *out = 0;
    std::copy(number.begin(), number.end(), out + 1);
}

int openKeyMaterial(CryptoCoreContainer* self, const unsigned char* sealed, std::size_t sealedSize,
                    unsigned char* modulus, unsigned char* exponent)
{
    return seam::answered(kArea, [&] {
        require(of(self).key && sealed != nullptr && modulus != nullptr && exponent != nullptr);
        const auto path = keystore::configuration().text("seal_key");
        if (!path) {
            keystore::configuration().reportMissing("seal_key",
                                                    "sealed key material cannot be opened");
            throw secure::Error(SS_ERROR_ACCESS, "");
        }
        const keymaterial::Parts parts =
            keymaterial::open(keymaterial::readSealKey(*path), *of(self).key, sealed, sealedSize);
        give(parts.modulus, modulus);
        give(parts.exponent, exponent);
    });
}

}  // namespace

int create_CryptoCoreContainer(int algorithm, CryptoCoreContainer** container)
{
    return seam::answered(kArea, [&] {
        require(algorithm == CC_RSA && container != nullptr);
        auto* const made = new Container;
        made->set_public_key = setPublicKey;
        made->ae_decrypt = aeDecrypt;
        made->open_key_material = openKeyMaterial;
        made->context = nullptr;
        *container = made;
    });
}

void destroy_CryptoCoreContainer(CryptoCoreContainer* container)
{
    delete static_cast<Container*>(container);
}
