// environment.h - the environment of the process: only what is known to be harmless stays.
#pragma once

namespace process {

/// Removes every variable that could steer a library (proxies, key logs, trust, engines, modules,
/// name look-ups), and gives the main loop's library the run directory that it insists on.
/// Thread: main, before any other exists.
void cleanEnvironment();

}  // namespace process
