// platform/include/platform/network.h - default route of the device, and changes of its network.
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

/// Tells whether the network may have changed since the last call: a default route, an address or a link was added or
/// removed. Older connections may be dead without a sign, and new requests do not use them after a change.
/// The first call starts the watch.
/// @return true after a change, or when one cannot be excluded; false without one, at the first call, and on a platform
///   without reports
/// Thread: one at a time. Called before each request: it must take a microsecond at most and never block.
bool connection_profile_has_changed(void);

#ifdef __cplusplus
}
#endif
