// seal.cpp - AES-256-GCM, SHA-256, HKDF and random bytes, by OpenSSL.
#include "seal.h"

#include "common/openssl_holders.h"
#include "secure_error.h"

#include <openssl/kdf.h>
#include <openssl/rand.h>

namespace seal {

namespace {

using Cipher = openssl::Owner<EVP_CIPHER_CTX>;

const unsigned char* bytesOf(const std::string& text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

void check(bool worked)
{
    if (!worked)
        throw secure::Error(SS_ERROR_BROKEN,
                            "the cryptographic library failed; check its configuration");
}

Cipher cipher()
{
    Cipher made(EVP_CIPHER_CTX_new());
    if (made == nullptr)
        throw std::bad_alloc();
    return made;
}

}  // namespace

std::string close(const secret::Bytes& key, const std::string& associated,
                  const unsigned char* content, std::size_t size)
{
    std::string sealed(size + kOverhead, '\0');
    auto* const out = reinterpret_cast<unsigned char*>(sealed.data());
    check(key.size() == kKeySize && RAND_bytes(out, kNonceSize) == 1);
    const Cipher context = cipher();
    int length = 0;
    int last = 0;
    check(EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.data(), out) == 1 &&
          EVP_EncryptUpdate(context.get(), nullptr, &length, bytesOf(associated),
                            static_cast<int>(associated.size())) == 1);
    length = 0;
    if (size != 0)
        check(EVP_EncryptUpdate(context.get(), out + kNonceSize, &length, content,
                                static_cast<int>(size)) == 1);
    check(EVP_EncryptFinal_ex(context.get(), out + kNonceSize + length, &last) == 1 &&
          EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, kTagSize,
                              out + kNonceSize + size) == 1);
    return sealed;
}

std::optional<secret::Bytes> open(const secret::Bytes& key, const std::string& associated,
                                  const unsigned char* sealed, std::size_t size)
{
    if (size < kOverhead || key.size() != kKeySize)
        return std::nullopt;
    secret::Bytes content(size - kOverhead);
    secret::Bytes tag(sealed + size - kTagSize, sealed + size);
    const Cipher context = cipher();
    int length = 0;
    int last = 0;
    check(EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.data(), sealed) == 1 &&
          EVP_DecryptUpdate(context.get(), nullptr, &length, bytesOf(associated),
                            static_cast<int>(associated.size())) == 1);
    if (!content.empty())
        check(EVP_DecryptUpdate(context.get(), content.data(), &length, sealed + kNonceSize,
                                static_cast<int>(content.size())) == 1);
    check(EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, kTagSize, tag.data()) == 1);
    unsigned char rest[kTagSize];
    if (EVP_DecryptFinal_ex(context.get(), rest, &last) != 1)
        return std::nullopt;
    return content;
}

secret::Bytes random(std::size_t size)
{
    secret::Bytes bytes(size);
    check(RAND_bytes(bytes.data(), static_cast<int>(size)) == 1);
    return bytes;
}

std::string digest(const void* bytes, std::size_t size)
{
    std::string result(kDigestSize, '\0');
    check(EVP_Digest(bytes, size, reinterpret_cast<unsigned char*>(result.data()), nullptr,
                     EVP_sha256(), nullptr) == 1);
    return result;
}

secret::Bytes derive(const secret::Bytes& secret, const std::string& salt, const std::string& info)
{
    const openssl::Owner<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_id(EVP_PKEY_HKDF, nullptr));
    secret::Bytes key(kKeySize);
    std::size_t size = key.size();
    EVP_PKEY_CTX* const c = context.get();
    check(c != nullptr && EVP_PKEY_derive_init(c) == 1 &&
          EVP_PKEY_CTX_set_hkdf_md(c, EVP_sha256()) == 1 &&
          EVP_PKEY_CTX_set1_hkdf_salt(c, bytesOf(salt), static_cast<int>(salt.size())) == 1 &&
          EVP_PKEY_CTX_set1_hkdf_key(c, secret.data(), static_cast<int>(secret.size())) == 1 &&
          EVP_PKEY_CTX_add1_hkdf_info(c, bytesOf(info), static_cast<int>(info.size())) == 1 &&
          EVP_PKEY_derive(c, key.data(), &size) == 1);
    return key;
}

}  // namespace seal
