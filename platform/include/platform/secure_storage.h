// platform/include/platform/secure_storage.h - sealed named data, and keys that never leave the key
// store.
#pragma once
#include <stddef.h>
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/// Identity of a client. ss_init_credential fills it; every call takes it; it may be copied. Each
/// client has its own named data, also under equal names. Keys belong to the device: every client of
/// the process may use them.
typedef struct {
    uint32_t words[5];
    uint32_t kind;
    uint32_t reserved;
} ss_credential_s;

/// Results of the functions below besides 0. A platform may return other positive numbers, which mean
/// failure.
typedef enum {
    SS_ERROR_NONE = 0,
    SS_ERROR_PARAMETER = 1,  ///< null or out of range
    SS_ERROR_NOT_FOUND = 2,  ///< no data of that name, no key of that id
    SS_ERROR_ACCESS = 3,     ///< the store's secret is missing or refused, or open to others
    /// The store or its token cannot be reached now. Data and keys may exist all the same.
    SS_ERROR_UNAVAILABLE = 4,
    SS_ERROR_BROKEN = 5,  ///< stored data, or the token's result, are damaged or wrong
    SS_ERROR_NO_MEMORY = 6,
    SS_ERROR_REFUSED = 7,  ///< the token lacks the operation: no such mechanism, no import of keys
} ss_error_e;

/// Types and uses of keys for ss_store_rsa_key.
enum {
    SS_KEY_RSA = 1055,   ///< an RSA key of 2048 bits, as its modulus and its private exponent
    SS_KEY_SIGN = 1204,  ///< the key is for the raw private operation
};

/// Fills a credential, without access to the store. The settings of the key store are read once
/// after it.
/// @param[out] credential not null
/// @param w0 to w4 the client's identity
/// @param kind 1
/// @param reserved 0
/// @return 0 or an error
/// Thread: any.
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

/// Stores or replaces named data, whole or not at all: after a power cut the name holds either the
/// old data or the new data.
/// @param data may be null when size is 0
/// @param size at most 1 MiB
/// @param reserved1 null
/// @param reserved2 0
/// @return 0 or an error.
/// Thread: any.
int ss_write(const unsigned char* data, size_t size, const void* reserved1, int reserved2,
             const char* name, const ss_credential_s* credential, int flags);

/// Deletes named data.
/// @param reserved 0
/// @return 0 or an error, SS_ERROR_NOT_FOUND when there is no such name.
/// Thread: any.
int ss_delete(int reserved, const char* name, const ss_credential_s* credential, int flags);

/// Overwrites and frees a buffer of ss_read or ss_encrypt_by_key. Null is allowed.
/// Thread: any.
void ss_free_buffer(unsigned char* buffer);

/// Stores an RSA key, or replaces the one with the same id. The store checks a signature of the new
/// key before it removes the old one; after a failure the old key stays. A power cut in between leaves
/// both: the id then gives SS_ERROR_BROKEN until all but one key are removed.
/// @param type SS_KEY_RSA @param use SS_KEY_SIGN
/// @param modulus, exponent big-endian, a leading zero byte allowed; sizes in bytes, 257 at most.
///   Not kept.
/// @param reserved1 to reserved4 0
/// @param[in,out] key_id the wanted id, 0 for any; on success the key's id
/// @return 0 or an error, SS_ERROR_REFUSED when the token takes no keys from outside.
/// Thread: any.
int ss_store_rsa_key(const ss_credential_s* credential, int type, int use,
                     const unsigned char* modulus, size_t modulus_size,
                     const unsigned char* exponent, size_t exponent_size, int reserved1,
                     int reserved2, int32_t* key_id, int reserved3, int reserved4);

/// The raw private-key operation (modular exponentiation, no padding of its own) on one block.
/// @param[in,out] block on entry the caller's 256 bytes; on success a buffer of the store's, which
///   the caller releases with ss_free_buffer. Untouched on failure.
/// @param[in,out] size 256
/// @param reserved1, reserved2 0
/// @return 0 only when the result has 256 bytes and the public key turns it into the block again;
///   else an error
/// Thread: any; a call waits for the others. It may take seconds on a slow token and cannot be
/// cancelled.
int ss_encrypt_by_key(const ss_credential_s* credential, int32_t key_id, unsigned char** block,
                      size_t* size, int reserved1, int reserved2);

/// Removes a key.
/// @return 0 or an error, SS_ERROR_NOT_FOUND when there is none of that id
/// Thread: any.
int ss_remove_key(const ss_credential_s* credential, int32_t key_id);

#ifdef __cplusplus
}
#endif
