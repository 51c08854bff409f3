// module_variables.h - the environment variables that the modules of key stores read.
#pragma once

namespace modules {

/// What the names of these variables begin with.
inline constexpr const char* kVariables[] = {"SOFTHSM2_", "TPM2_",    "TSS2_",
                                             "OPENSC_",   "P11_KIT_", "PKCS11_"};

}  // namespace modules
