// deployment.cpp - the integrator's choices, from [deployment].
#include "seam.h"
#include "settings.h"

#include <platform/deployment.h>

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

}  // namespace

char* deployment_get_host(deployment_host_e which)
{
    const char* const key = keyOf(which);
    if (key == nullptr)
        return nullptr;
    return seam::guarded<char*>(nullptr, [&] {
        const auto host = settings::text(kGroup, key);
        if (!host)
            settings::reportMissing(kGroup, key, "no request can be made to that server");
        return seam::heapCopy(host);
    });
}
