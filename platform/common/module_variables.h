// module_variables.h - the environment variables that PKCS#11 modules read.
#pragma once

namespace modules {

/// Prefixes of the names of these variables.
inline constexpr const char* kVariables[] = {"SOFTHSM2_", "TPM2_",    "TSS2_",
                                             "OPENSC_",   "P11_KIT_", "PKCS11_"};

}  // namespace modules
