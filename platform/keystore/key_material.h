// key_material.h - sealed key material: a private key in a file, for devices whose token cannot
// make the key itself. The file opens with the secret of one device and for one certificate only.
//
// The file, 616 bytes:
//    0   8  "BILLKEYM"
//    8   4  version: 0, 0, 0, 1
//   12  32  salt
//   44  32  SHA-256 of the public key's SubjectPublicKeyInfo (DER)
//   76  12  nonce
//   88 512  encrypted: modulus and private exponent, 256 bytes each, big-endian
//  600  16  tag; AES-256-GCM, with the first 76 bytes as associated data
// The key is HKDF-SHA256 of the device's secret (the bytes of the file [keystore] seal_key, mode
// 0600, 32 to 4096 of them) with the salt and the info "billing key material 1".
#pragma once

#include "common/raw_rsa.h"

#include <string>

namespace keymaterial {

constexpr std::size_t kSize = 616;
constexpr std::size_t kSecretLeast = 32;
constexpr std::size_t kSecretLimit = 4096;

/// Reads the device's secret.
/// @throw secure::Error
secret::Bytes readSealKey(const std::string& path);

/// @throw secure::Error
std::string close(const secret::Bytes& sealKey, const rawrsa::PrivateKey& key);

struct Parts {
    secret::Bytes modulus;   ///< 256 bytes
    secret::Bytes exponent;  ///< 256 bytes
};

/// @throw secure::Error when the file is damaged, of another device, or for another public key
Parts open(const secret::Bytes& sealKey, const rawrsa::PublicKey& key, const unsigned char* sealed,
           std::size_t size);

}  // namespace keymaterial
