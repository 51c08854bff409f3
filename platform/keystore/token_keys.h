// token_keys.h - the service's RSA keys on a token. CKA_ID of the private object is the key's number
// in four bytes, big-endian (number 7 is 00000007). A public object of the same CKA_ID belongs to it.
#pragma once

#include "common/raw_rsa.h"
#include "pkcs11.h"

#include <cstdint>

namespace tokenkeys {

// Each function throws secure::Error.

/// The CKA_ID as tools show it: "0000002a" for 42.
std::string shownId(std::int32_t id);

/// The private operation on kBlockSize bytes. The public key checks the result first.
secret::Bytes privateOperation(const pkcs11::Session& session, std::int32_t id,
                               const unsigned char* block);

/// Stores a key under this number. The old key of the number is removed after a signature of the
/// new one has been checked; after a failure it stays.
void import(const pkcs11::Session& session, std::int32_t id, const rawrsa::PrivateKey& key);

/// The lowest number above 0 without a key.
std::int32_t freeId(const pkcs11::Session& session);

bool exists(const pkcs11::Session& session, std::int32_t id);

/// Makes a key inside the token and checks a signature of it.
/// @param signOnly the key may sign only; false for a TPM, which signs a raw block by decrypting it
/// @throw secure::Error when the number has a key already
void generate(const pkcs11::Session& session, std::int32_t id, bool signOnly = true);

/// @throw SS_ERROR_NOT_FOUND when the number has no private key
rawrsa::PublicKey publicKey(const pkcs11::Session& session, std::int32_t id);

/// Rights that the key has beyond signing, as text.
/// @return empty when there are none
std::string faultIn(const pkcs11::Session& session, std::int32_t id);

/// Checks a signature of the key.
/// @throw secure::Error when the key does not work
void prove(const pkcs11::Session& session, std::int32_t id);

/// Removes the private and the public objects of a number.
/// @return false when there was no private object
bool remove(const pkcs11::Session& session, std::int32_t id);

}  // namespace tokenkeys
