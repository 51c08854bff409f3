// platform/include/platform/deployment.h - settings of the integrator for a whole fleet.
#pragma once
#include <stddef.h>
#include <stdint.h>
#ifdef __cplusplus
extern "C" {
#endif

/// The store's two billing servers.
typedef enum {
    DEPLOYMENT_HOST_PRODUCTION = 0,
    DEPLOYMENT_HOST_SANDBOX = 1,
} deployment_host_e;

/// Reads the host of a billing server.
/// @return a bare host name, optionally followed by ":" and a port, as a heap copy that the caller
///   frees with free(); null when it is not set or is not a bare host name, which the platform has
///   logged
/// Thread: any.
char* deployment_get_host(deployment_host_e which);

/// Reads the identity under which the service uses secure storage and key store.
/// @param[out] words set on success only; not null
/// @return 0, or another number when it is not set or not five 32-bit numbers, which the platform
///   has logged
/// Thread: any.
int deployment_get_credential(uint32_t words[5]);

/// Reads the id of the device's private key in the key store.
/// @param[out] key_id set on success only, never to 0; not null
/// @return 0, or another number when it is not set or not a number, which the platform has logged
/// Thread: any.
int deployment_get_key_id(int32_t* key_id);

/// Reads the sealed key material of devices whose key is imported at the first start.
/// @param[out] sealed on success a heap copy that the caller frees with free(); not null
/// @param[out] size its bytes
/// @return 0, or another number when there is none (then the key was made inside the store) or it
///   cannot be read
/// Thread: any.
int deployment_get_key_material(unsigned char** sealed, size_t* size);

#ifdef __cplusplus
}
#endif
