// environment.h - the environment of the process: only variables known as harmless stay.
#pragma once

namespace process {

/// Removes every variable that could steer a library (proxies, key logs, trust, engines, modules,
/// name look-ups). Sets XDG_RUNTIME_DIR, without which Ecore aborts.
/// Thread: main, before any other thread exists.
void cleanEnvironment();

}  // namespace process
