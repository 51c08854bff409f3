// key_material.cpp - sealed key material.
#include "key_material.h"

#include "private_file.h"
#include "seal.h"
#include "secure_error.h"

#include <algorithm>

namespace keymaterial {

namespace {

const std::string kMagic = "BILLKEYM";
const std::string kVersion("\0\0\0\1", 4);
const std::string kInfo = "billing key material 1";
constexpr std::size_t kSaltSize = 32;
constexpr std::size_t kSaltAt = 12;
constexpr std::size_t kDigestAt = kSaltAt + kSaltSize;
constexpr std::size_t kHeaderSize = kDigestAt + seal::kDigestSize;
static_assert(kHeaderSize + seal::kOverhead + 2 * rawrsa::kBlockSize == kSize);

void append(secret::Bytes& to, const secret::Bytes& number)
{
    to.insert(to.end(), rawrsa::kBlockSize - number.size(), 0);
    to.insert(to.end(), number.begin(), number.end());
}

}  // namespace

secret::Bytes readSealKey(const std::string& path)
{
    secret::Bytes key = privatefile::readSecret(path, kSecretLimit);
    if (key.size() < kSecretLeast)
        throw secure::Error(SS_ERROR_ACCESS,
                            path +
                                " holds under 32 bytes; [keystore] seal_key must name the "
                                "device's own random secret");
    return key;
}

std::string close(const secret::Bytes& sealKey, const rawrsa::PrivateKey& key)
{
    const secret::Bytes random = seal::random(kSaltSize);
    const std::string salt(random.begin(), random.end());
    const std::string header =
        kMagic + kVersion + salt + seal::digest(rawrsa::publicKeyInfo(key.publicKey()));
    secret::Bytes content;
    append(content, key.modulus);
    append(content, key.privateExponent);
    return header +
           seal::close(seal::derive(sealKey, salt, kInfo), header, content.data(), content.size());
}

Parts open(const secret::Bytes& sealKey, const rawrsa::PublicKey& key, const unsigned char* sealed,
           std::size_t size)
{
    const std::string header(reinterpret_cast<const char*>(sealed), std::min(size, kHeaderSize));
    if (size != kSize || header.compare(0, kSaltAt, kMagic + kVersion) != 0)
        throw secure::Error(SS_ERROR_BROKEN,
                            "the key material is no file of billing-provision "
                            "seal; [deployment] key_material must name one");
    if (header.substr(kDigestAt) != seal::digest(rawrsa::publicKeyInfo(key)))
        throw secure::Error(SS_ERROR_BROKEN,
                            "the key material is for another certificate; seal the key of this "
                            "one (billing-provision seal)");
    const std::string salt = header.substr(kSaltAt, kSaltSize);
    const auto content = seal::open(seal::derive(sealKey, salt, kInfo), header,
                                    sealed + kHeaderSize, size - kHeaderSize);
    if (!content)
        throw secure::Error(SS_ERROR_BROKEN,
                            "the key material is broken or was sealed with another device's "
                            "secret; seal it again with the file of [keystore] seal_key");
    const auto middle = content->begin() + rawrsa::kBlockSize;
    return {{content->begin(), middle}, {middle, content->end()}};
}

}  // namespace keymaterial
