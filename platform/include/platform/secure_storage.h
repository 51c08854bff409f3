// platform/include/platform/secure_storage.h - named data that is kept sealed, and the keys that
// never leave the store.
#pragma once
#include <stddef.h>
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/// Who asks: the identity of a client. Filled by ss_init_credential, passed to every call, copied
/// freely. Named data belong to the client that wrote them: another one has names of its own. Keys
/// belong to the device, for any client of the process.
typedef struct {
    uint32_t words[5];
    uint32_t kind;
    uint32_t reserved;
} ss_credential_s;

/// What the functions below return besides 0. A platform may return other positive numbers; they
/// all mean failure.
typedef enum {
    SS_ERROR_NONE = 0,
    SS_ERROR_PARAMETER = 1,  ///< null or out of range
    SS_ERROR_NOT_FOUND = 2,  ///< no data of that name, no key of that id
    SS_ERROR_ACCESS = 3,     ///< the store's secret is missing or refused, or open to others
    /// The store, or the token behind it, cannot be reached; it may be later. Says nothing about
    /// whether the data or the key exist.
    SS_ERROR_UNAVAILABLE = 4,
    SS_ERROR_BROKEN = 5,  ///< what was read, or what the token returned, is not what it must be
    SS_ERROR_NO_MEMORY = 6,
    SS_ERROR_REFUSED = 7,  ///< the token does not do it: no such mechanism, no import of keys
} ss_error_e;

/// Key types and uses that ss_store_rsa_key takes.
enum {
    SS_KEY_RSA = 1055,   ///< an RSA key of 2048 bits, as its modulus and its private exponent
    SS_KEY_SIGN = 1204,  ///< the key is for the raw private operation
};

/// Fills a credential. @param[out] credential not null @param w0 to w4 the client's identity @param
/// kind 1 @param reserved 0 @return 0 or an error. Does not touch the store. Settings that name
/// the key store are read once after it. Thread: any.
int ss_init_credential(ss_credential_s* credential, uint32_t w0, uint32_t w1, uint32_t w2,
                       uint32_t w3, uint32_t w4, uint32_t kind, uint32_t reserved);

/// Reads named data.
/// @param[out] buffer on success the data, which the caller releases with ss_free_buffer; data of
///   no bytes is a buffer that is not null, with size 0. Untouched on failure.
/// @param[out] size bytes in the buffer
/// @param reserved1, reserved2 0
/// @param name NUL-terminated, 1 to 255 bytes, any but NUL
/// @param flags 33: sealed for this device and this client
/// @return 0 or an error, SS_ERROR_NOT_FOUND when there is no such name.
/// Thread: any.
int ss_read(unsigned char** buffer, size_t* size, int reserved1, int reserved2, const char* name,
            const ss_credential_s* credential, int flags);

/// Stores named data, whole or not at all: after a power cut the name holds the old data or the
/// new. Replaces.
/// @param data may be null when size is 0 @param size at most 1 MiB @param reserved1 null @param
///   reserved2 0
/// @return 0 or an error.
/// Thread: any.
int ss_write(const unsigned char* data, size_t size, const void* reserved1, int reserved2,
             const char* name, const ss_credential_s* credential, int flags);

/// Deletes named data. @param reserved 0 @return 0 or an error, SS_ERROR_NOT_FOUND when there is no
/// such name.
/// Thread: any.
int ss_delete(int reserved, const char* name, const ss_credential_s* credential, int flags);

/// Releases what ss_read or ss_encrypt_by_key gave; its bytes are wiped. Null is allowed. Thread:
/// any.
void ss_free_buffer(unsigned char* buffer);

/// Stores an RSA key, in place of one that has its id. The store proves by a signature that the key
/// works before it takes the old one away; when it fails, the old key stays. A power cut between the
/// two leaves both, and then the id answers SS_ERROR_BROKEN until all but one of them are removed.
/// @param type SS_KEY_RSA @param use SS_KEY_SIGN
/// @param modulus, exponent big-endian, a leading zero byte allowed; sizes in bytes, 257 at most.
///   Not kept.
/// @param reserved1 to reserved4 0
/// @param[in,out] key_id the id that is wanted, 0 for any; on success the id that the key has
/// @return 0 or an error, SS_ERROR_REFUSED when keys can only be made inside.
/// Thread: any.
int ss_store_rsa_key(const ss_credential_s* credential, int type, int use,
                     const unsigned char* modulus, size_t modulus_size,
                     const unsigned char* exponent, size_t exponent_size, int reserved1,
                     int reserved2, int32_t* key_id, int reserved3, int reserved4);

/// The raw private-key operation (modular exponentiation, no padding of its own) on one block.
/// @param[in,out] block on entry the caller's 256 bytes; on success a buffer of the store's, which
///   the caller releases with ss_free_buffer. Untouched on failure.
/// @param[in,out] size 256 @param reserved1, reserved2 0
/// @return 0 only when the result is 256 bytes and the public key takes it back to the block; an
///   error on any doubt.
/// Thread: any; callers wait for each other. May take seconds on a slow token, and is not
/// cancelled.
int ss_encrypt_by_key(const ss_credential_s* credential, int32_t key_id, unsigned char** block,
                      size_t* size, int reserved1, int reserved2);

/// Removes a key. @return 0 or an error, SS_ERROR_NOT_FOUND when there is none of that id. Thread:
/// any.
int ss_remove_key(const ss_credential_s* credential, int32_t key_id);

#ifdef __cplusplus
}
#endif
