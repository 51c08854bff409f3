// seal.h - AES-256-GCM: bytes that nobody without the key can read or change.
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

/// Seals under a fresh random nonce. @param key kKeySize bytes @param associated what the seal
/// vouches for beside the content
/// @return nonce, ciphertext, tag. Throws secure::Error when the random source or the cipher fails.
std::string close(const secret::Bytes& key, const std::string& associated,
                  const unsigned char* content, std::size_t size);

/// @return nullopt when the key, what is associated, or any bit of the sealed bytes is another
std::optional<secret::Bytes> open(const secret::Bytes& key, const std::string& associated,
                                  const unsigned char* sealed, std::size_t size);

/// Bytes of the system's random source.
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
