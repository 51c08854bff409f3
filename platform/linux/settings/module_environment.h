// module_environment.h - the environment variables that the key store's module reads.
#pragma once

namespace keystore {

/// Sets the variables of [keystore] environment; they replace those that the process has. Faults in
/// the settings are not logged here but by the first reader of a setting.
/// Thread: main, before any other thread exists, since setenv() is not safe beside a reader.
void takeEnvironment();

}  // namespace keystore
