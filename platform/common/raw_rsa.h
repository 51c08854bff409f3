// platform/common/raw_rsa.h - RSA with 2048 bits on bare numbers: what secure storage and crypto
// container need beside the key store itself. Numbers are big-endian.
#pragma once

#include "openssl_holders.h"
#include "secret_bytes.h"

#include <cstddef>
#include <optional>
#include <string>

namespace rawrsa {

/// Bytes of a modulus, of a block and of a result.
constexpr std::size_t kBlockSize = 256;
/// Bytes of a number as it is handed over with a leading zero byte.
constexpr std::size_t kPartSize = kBlockSize + 1;

/// Without leading zeros.
struct PublicKey {
    secret::Bytes modulus;
    secret::Bytes exponent;
};

/// Without leading zeros; all wiped at the end.
struct PrivateKey {
    secret::Bytes modulus;
    secret::Bytes publicExponent;
    secret::Bytes privateExponent;
    secret::Bytes prime1;
    secret::Bytes prime2;
    secret::Bytes exponent1;    ///< private exponent modulo (prime1 - 1)
    secret::Bytes exponent2;    ///< private exponent modulo (prime2 - 1)
    secret::Bytes coefficient;  ///< prime2 to the power of -1, modulo prime1

    PublicKey publicKey() const { return {modulus, publicExponent}; }
};

/// Makes a public key of two numbers that may have leading zeros.
/// @return nullopt unless the modulus has 2048 bits and the exponent is odd, over 1 and no longer
///   than the modulus
std::optional<PublicKey> publicKey(const unsigned char* modulus, std::size_t modulusSize,
                                   const unsigned char* exponent, std::size_t exponentSize);

/// A block with type 1 padding, as a PKCS#1 signature has it.
/// @param size at most kBlockSize - 11, the least padding
secret::Bytes paddedBlock(const unsigned char* content, std::size_t size);

/// The public operation. @param in, out kBlockSize bytes each @return false when the block is not
/// below the modulus
bool publicOperation(const PublicKey& key, const unsigned char* in, unsigned char* out);

/// The private operation, for a key whose numbers are at hand. @param in, out kBlockSize bytes each
/// @return false when the block is not below the modulus
bool privateOperation(const PrivateKey& key, const unsigned char* in, unsigned char* out);

/// Finds the rest of a key from its modulus and private exponent, trying the public exponents that
/// are in use: 65537, 3, 17 and 257.
/// @return nullopt when they are no key of 2048 bits with one of these
std::optional<PrivateKey> recover(const unsigned char* modulus, std::size_t modulusSize,
                                  const unsigned char* exponent, std::size_t exponentSize);

/// Takes the numbers out of OpenSSL's record. @return nullopt when it is no RSA key of 2048 bits
/// with such a public exponent, or has no private part
std::optional<PrivateKey> numbersOf(EVP_PKEY* key);
/// The public key as its SubjectPublicKeyInfo, in DER.
std::string publicKeyInfo(const PublicKey& key);

/// OpenSSL's record of a public key.
openssl::Owner<EVP_PKEY> record(const PublicKey& key);

/// As numbersOf(), for the public part alone.
std::optional<PublicKey> publicNumbersOf(EVP_PKEY* key);

}  // namespace rawrsa
