// deployment.cpp - the integrator's choices, from [deployment].
#include "common/c_functions.h"
#include "common/value_rules.h"
#include "keystore/answered.h"
#include "keystore/key_material.h"
#include "keystore/private_file.h"
#include "linux/settings/settings.h"

#include <platform/deployment.h>

#include <algorithm>
#include <cstdlib>

namespace {

constexpr const char* kGroup = "deployment";

const char* keyOf(deployment_host_e which)
{
    switch (which) {
        case DEPLOYMENT_HOST_PRODUCTION:
            return "production_host";
        case DEPLOYMENT_HOST_SANDBOX:
            return "sandbox_host";
    }
    return nullptr;
}

constexpr const char* kCredential = "credential";
constexpr const char* kKeyId = "key_id";
constexpr const char* kKeyMaterial = "key_material";
constexpr std::size_t kWords = 5;

}  // namespace

char* deployment_get_host(deployment_host_e which)
{
    const char* const key = keyOf(which);
    if (key == nullptr)
        return nullptr;
    return seam::guarded<char*>(nullptr, [&] {
        const auto host = settings::shared(kGroup, key);
        if (!host)
            settings::reportMissing(kGroup, key, "no request can be made to that server");
        return seam::heapCopy(host);
    });
}

int deployment_get_credential(uint32_t words[5])
{
    return seam::guarded<int>(-1, [&] {
        const auto text = settings::text(kGroup, kCredential);
        uint32_t read[kWords];
        if (!text || !valuerules::numbers32(*text, read, kWords)) {
            settings::reportMissing(kGroup, kCredential, "secure storage knows no client");
            return -1;
        }
        std::copy(std::begin(read), std::end(read), words);
        return 0;
    });
}

int deployment_get_key_id(int32_t* key_id)
{
    return seam::guarded<int>(-1, [&] {
        const auto id = settings::number(kGroup, kKeyId);
        if (!id || *id == 0) {
            settings::reportMissing(kGroup, kKeyId, "the device's private key is not known");
            return -1;
        }
        *key_id = *id;
        return 0;
    });
}

int deployment_get_key_material(unsigned char** sealed, size_t* size)
{
    return seam::answered("deployment", [&] {
        const auto path = settings::text(kGroup, kKeyMaterial);
        if (!path)
            throw secure::Error(SS_ERROR_NOT_FOUND, "");
        const secret::Bytes bytes = privatefile::readSecret(*path, keymaterial::kSize);
        auto* const copy = static_cast<unsigned char*>(malloc(bytes.size() + 1));
        if (copy == nullptr)
            throw std::bad_alloc();
        std::copy(bytes.begin(), bytes.end(), copy);
        *sealed = copy;
        *size = bytes.size();
    });
}
