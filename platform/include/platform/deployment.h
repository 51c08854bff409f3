// platform/include/platform/deployment.h - what the integrator decides for a whole fleet.
#pragma once
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

#ifdef __cplusplus
}
#endif
