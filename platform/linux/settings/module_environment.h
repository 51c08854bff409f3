// module_environment.h - the environment variables that the key store's module reads.
#pragma once

namespace keystore {

/// Sets the variables of [keystore] environment, over those that the process was given. What is
/// wrong in the settings is left for the first that reads them to log.
/// Thread: main, before any other exists: another one may read a variable meanwhile.
void takeEnvironment();

}  // namespace keystore
