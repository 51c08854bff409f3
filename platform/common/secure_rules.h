// platform/common/secure_rules.h - the limits that secure storage's header promises, for every
// backend to share.
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

/// Was it filled by ss_init_credential?
inline bool isCredential(const ss_credential_s* credential)
{
    return credential != nullptr && credential->kind == kKind && credential->reserved == 0;
}

inline bool isName(const char* name)
{
    const std::size_t length = name == nullptr ? 0 : strnlen(name, kNameLimit + 1);
    return length > 0 && length <= kNameLimit;
}

/// What the three operations on named data have in common.
inline bool areArguments(const char* name, const ss_credential_s* credential, int flags)
{
    return isName(name) && isCredential(credential) && flags == kSealed;
}

}  // namespace securerules
