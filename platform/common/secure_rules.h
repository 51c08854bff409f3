// platform/common/secure_rules.h - the limits that secure storage's header promises, shared by all
// backends.
#pragma once

#include <platform/secure_storage.h>

#include <cstddef>
#include <cstring>

namespace securerules {

constexpr std::size_t kNameLimit = 255;
constexpr std::size_t kDataLimit = std::size_t{1024} * 1024;
constexpr int kSealed = 33;
constexpr uint32_t kKind = 1;
constexpr std::size_t kBlockSize = 256;
constexpr std::size_t kPartLimit = 257;

/// True if ss_init_credential has filled the credential.
inline bool isCredential(const ss_credential_s* credential)
{
    return credential != nullptr && credential->kind == kKind && credential->reserved == 0;
}

inline bool isName(const char* name)
{
    const std::size_t length = name == nullptr ? 0 : strnlen(name, kNameLimit + 1);
    return length > 0 && length <= kNameLimit;
}

/// Checks the arguments that the three operations on named data share.
inline bool areArguments(const char* name, const ss_credential_s* credential, int flags)
{
    return isName(name) && isCredential(credential) && flags == kSealed;
}

}  // namespace securerules
