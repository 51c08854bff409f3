// platform/include/platform/network.h - is there a way out of the device, and is it still the same?
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

/// Tells whether the way out of the device may have changed since the last call: a default route or an address has come or
/// gone. Connections made before may be dead without a sign of it, and are not used for new requests after a change.
/// The first call begins to watch.
/// @return true after a change, also after one that cannot be told from others; false without one, at the first call, and
///   on a platform that does not know
/// Thread: one at a time. Called before each request, so it takes a microsecond at most, and never blocks.
bool connection_profile_has_changed(void);

#ifdef __cplusplus
}
#endif
