// platform/common/raw_rsa.h - RSA with 2048 bits on bare numbers, for secure storage and crypto
// container. Numbers are big-endian.
#pragma once

#include "openssl_holders.h"
#include "secret_bytes.h"

#include <cstddef>
#include <optional>
#include <string>

namespace rawrsa {

/// Bytes of a modulus, of a block and of a result.
constexpr std::size_t kBlockSize = 256;
/// Size of a number with one leading zero byte, as callers of the seam give it.
constexpr std::size_t kPartSize = kBlockSize + 1;

/// Without leading zeros.
struct PublicKey {
    secret::Bytes modulus;
    secret::Bytes exponent;
};

/// Without leading zeros. The destructor wipes all of them.
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

/// Makes a public key from two numbers, with or without leading zeros.
/// @return nullopt unless the modulus has 2048 bits and the exponent is odd, over 1 and no longer
///   than the modulus
std::optional<PublicKey> publicKey(const unsigned char* modulus, std::size_t modulusSize,
                                   const unsigned char* exponent, std::size_t exponentSize);

/// A block with type 1 padding, as a PKCS#1 signature has it.
/// @param size at most kBlockSize - 11, the least padding
secret::Bytes paddedBlock(const unsigned char* content, std::size_t size);

/// The public operation.
/// @param in, out kBlockSize bytes each
/// @return false when the block is not below the modulus
bool publicOperation(const PublicKey& key, const unsigned char* in, unsigned char* out);

/// The private operation, for a key whose numbers are known.
/// @param in, out kBlockSize bytes each
/// @return false when the block is not below the modulus
bool privateOperation(const PrivateKey& key, const unsigned char* in, unsigned char* out);

/// Computes a whole key from its modulus and private exponent. The public exponents 65537, 3, 17
/// and 257 are tried.
/// @return nullopt unless the numbers are a key of 2048 bits with one of these exponents
std::optional<PrivateKey> recover(const unsigned char* modulus, std::size_t modulusSize,
                                  const unsigned char* exponent, std::size_t exponentSize);

/// Reads the numbers of an OpenSSL key.
/// @return nullopt unless it is an RSA key of 2048 bits with one of these public exponents and a
///   private part
std::optional<PrivateKey> numbersOf(EVP_PKEY* key);
/// The public key as its SubjectPublicKeyInfo, in DER.
std::string publicKeyInfo(const PublicKey& key);

/// Makes an OpenSSL key that holds the public part alone.
openssl::Owner<EVP_PKEY> record(const PublicKey& key);

/// Reads the public numbers of an OpenSSL key.
/// @return nullopt unless it is an RSA key of 2048 bits
std::optional<PublicKey> publicNumbersOf(EVP_PKEY* key);

}  // namespace rawrsa
