// platform/include/platform/network.h - is there a way out of the device?
#pragma once
#include <stdbool.h>
#ifdef __cplusplus
extern "C" {
#endif

/// Asks the kernel whether a default route exists, IPv4 or IPv6.
/// @param[out] exists set on success only; not null
/// @return 0, or a positive errno value when the routing tables cannot be read
/// Thread: any. Does not block on the network.
int connection_profile_check_default_gateway(bool* exists);

#ifdef __cplusplus
}
#endif
