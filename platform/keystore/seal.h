// seal.h - AES-256-GCM: the content is secret, and a change of it is found.
#pragma once

#include "common/secret_bytes.h"

#include <optional>
#include <string>

namespace seal {

constexpr std::size_t kKeySize = 32;
constexpr std::size_t kNonceSize = 12;
constexpr std::size_t kTagSize = 16;
constexpr std::size_t kOverhead = kNonceSize + kTagSize;
constexpr std::size_t kDigestSize = 32;

/// Encrypts with a fresh random nonce.
/// @param key kKeySize bytes
/// @param associated associated data: authenticated, not stored
/// @return nonce, ciphertext, tag
/// @throw secure::Error when the random source or the cipher fails
std::string close(const secret::Bytes& key, const std::string& associated,
                  const unsigned char* content, std::size_t size);

/// @return nullopt when the key, the associated data or any bit of the sealed bytes differs
std::optional<secret::Bytes> open(const secret::Bytes& key, const std::string& associated,
                                  const unsigned char* sealed, std::size_t size);

/// Random bytes for keys and salts.
secret::Bytes random(std::size_t size);

/// SHA-256.
std::string digest(const void* bytes, std::size_t size);
inline std::string digest(const std::string& bytes)
{
    return digest(bytes.data(), bytes.size());
}

/// Derives a key with HKDF-SHA256.
secret::Bytes derive(const secret::Bytes& secret, const std::string& salt, const std::string& info);

}  // namespace seal
