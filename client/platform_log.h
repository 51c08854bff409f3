// platform_log.h - what the platform complains about while the doctor asks it.
#pragma once

#include <string>

namespace client {

/// The first error that the platform has logged since the last time, empty when there was none.
/// Thread: one.
std::string takeComplaint();

}  // namespace client
