// platform_log.h - what the platform and the service's own steps say while the doctor runs them.
#pragma once

#include <string>
#include <vector>

namespace client {

/// The first error that was logged since the last time, empty when there was none. Thread: any.
std::string takeComplaint();

/// From now on every record is kept. Thread: any.
void keepRecords();
/// The records since then, as texts. They hold private values. Thread: any.
std::vector<std::string> records();

}  // namespace client
