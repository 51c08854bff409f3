// routes.h - the kernel's routing tables.
#pragma once

namespace routes {

/// Asks the kernel whether the main table holds a default route, IPv4 or IPv6, that leads out: one
/// that is a plain route (not unreachable, prohibit or blackhole), over a device other than the
/// loopback whose link is up.
/// @param[out] exists set on success only
/// @return 0, or a positive errno value
/// Thread: any. Takes 32 KiB of its stack.
int defaultRouteExists(bool* exists);

}  // namespace routes
