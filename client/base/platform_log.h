// platform_log.h - log records of the platform and of the service's code, while the doctor runs them.
#pragma once

#include <string>
#include <vector>

namespace client {

/// Takes the first error that was logged since the last call. Thread: any.
/// @return empty when there was none
std::string takeComplaint();

/// Starts keeping all records. Thread: any.
void keepRecords();
/// @return the texts of the kept records; they contain private values. Thread: any
std::vector<std::string> records();

}  // namespace client
