// routes.h - the kernel's routing tables.
#pragma once

namespace routes {

/// Looks for a default route, IPv4 or IPv6, in the kernel's main table. It must be a unicast route
/// (not unreachable, prohibit or blackhole) over a device that is not the loopback and whose link is
/// up.
/// @param[out] exists set on success only
/// @return 0, or a positive errno value
/// Thread: any. Needs 32 KiB of stack.
int defaultRouteExists(bool* exists);

}  // namespace routes
