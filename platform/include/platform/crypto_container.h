// platform/include/platform/crypto_container.h - the platform's crypto container: opens sealed key
// material, and undoes a private-key operation with the public key.
#pragma once
#include <stddef.h>
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/// Algorithms of a container.
enum {
    CC_RSA = 1055,  ///< RSA with 2048 bits, raw
};

/// A container with its operations. The functions below make and destroy it.
/// Thread: one at a time.
typedef struct CryptoCoreContainer {
    /// Sets the public key.
    /// @param modulus, exponent big-endian, sizes in bytes
    /// @return 0 or a positive number
    int (*set_public_key)(struct CryptoCoreContainer* self, const unsigned char* modulus,
                          size_t modulus_size, const unsigned char* exponent, size_t exponent_size);

    /// Does the public-key operation on one block of 256 bytes, which undoes the private-key operation.
    /// @param[out] out 256 bytes of the caller's
    /// @param[in,out] out_size 256 on entry; on success the bytes written
    /// @return 0 or a positive number
    int (*ae_decrypt)(struct CryptoCoreContainer* self, const unsigned char* in, size_t in_size,
                      unsigned char* out, size_t* out_size);

    /// Opens sealed key material for the public key that was set.
    /// @param[out] modulus, exponent 257 bytes each of the caller's: a zero byte and 256 bytes,
    ///   big-endian. The caller wipes them.
    /// @return 0, or a positive number when the material is for another key, damaged or forged, or when an
    ///   argument is null
    int (*open_key_material)(struct CryptoCoreContainer* self, const unsigned char* sealed,
                             size_t sealed_size, unsigned char modulus[257],
                             unsigned char exponent[257]);

    void* context;  ///< owned by the platform
} CryptoCoreContainer;

/// Makes a container.
/// @param algorithm CC_RSA
/// @param[out] container set on success only; not null
/// @return 0 or a positive number
/// Thread: any.
int create_CryptoCoreContainer(int algorithm, CryptoCoreContainer** container);

/// Destroys a container and overwrites its contents. Null is allowed.
/// Thread: any.
void destroy_CryptoCoreContainer(CryptoCoreContainer* container);

#ifdef __cplusplus
}
#endif
