// log_double.h - the platform's log in the wrapper's tests.
#pragma once

#include <string>
#include <vector>

/// What was logged since the last time. Thread: any.
std::vector<std::string> takeLog();
