// token_keys.h - the service's RSA keys on a token. A key is the private object whose CKA_ID is its
// number in four bytes, big-endian (number 7 is 00000007), with the public object of the same
// CKA_ID where there is one.
#pragma once

#include "common/raw_rsa.h"
#include "pkcs11.h"

#include <cstdint>

namespace tokenkeys {

// Each throws secure::Error.

/// "0000002a" for 42: how tools show the CKA_ID.
std::string shownId(std::int32_t id);

/// The private operation on kBlockSize bytes. The result is checked with the public key before it
/// is handed out.
secret::Bytes privateOperation(const pkcs11::Session& session, std::int32_t id,
                               const unsigned char* block);

/// Puts a key in place of the one with this number, once a signature has proved that it works. When
/// it fails, what was there stays.
void import(const pkcs11::Session& session, std::int32_t id, const rawrsa::PrivateKey& key);

/// The lowest number over 0 that has no key.
std::int32_t freeId(const pkcs11::Session& session);

bool exists(const pkcs11::Session& session, std::int32_t id);

/// Makes a key inside the token, and proves it by a signature. @throw when the number has a key
/// @param signOnly the key may do nothing else; a TPM signs a raw block by decrypting it
void generate(const pkcs11::Session& session, std::int32_t id, bool signOnly = true);

/// @throw SS_ERROR_NOT_FOUND when the number has no private key
rawrsa::PublicKey publicKey(const pkcs11::Session& session, std::int32_t id);

/// What the key may do, or what may be done with it, beyond signing. @return empty when nothing
std::string faultIn(const pkcs11::Session& session, std::int32_t id);

/// Proves by a signature that a key works. @throw when it does not
void prove(const pkcs11::Session& session, std::int32_t id);

/// Removes the private and the public objects of a number. @return false when there was no private
/// one
bool remove(const pkcs11::Session& session, std::int32_t id);

}  // namespace tokenkeys
