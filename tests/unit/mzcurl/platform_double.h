// platform_double.h - the platform in the wrapper's tests: its log, and a network that a test changes.
#pragma once

#include <string>
#include <vector>

/// Records logged since the last call. Thread: any.
std::vector<std::string> takeLog();

/// Changes the network once: the wrapper's next question returns true. Thread: any.
void changeNetwork();
