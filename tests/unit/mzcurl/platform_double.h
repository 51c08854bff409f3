// platform_double.h - the platform in the wrapper's tests: its log, and a network that changes.
#pragma once

#include <string>
#include <vector>

/// What was logged since the last time. Thread: any.
std::vector<std::string> takeLog();

/// The network changes, once: the wrapper hears of it at its next question. Thread: any.
void changeNetwork();
