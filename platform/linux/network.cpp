// network.cpp - the default gateway: from the kernel's routing tables, or fixed by [network].
#include "common/c_functions.h"
#include "linux/settings/settings.h"
#include "linux/settings/settings_known.h"
#include "routes.h"

#include <platform/network.h>

#include <cerrno>

int connection_profile_check_default_gateway(bool* exists)
{
    using Source = settings::GatewayRule::Source;
    return seam::guarded(ENOMEM, [&] {
        // A malformed rule is a failure: taking it for "auto" would hide the mistake.
        if (settings::isRefused("network", "default_gateway"))
            return EINVAL;
        const auto text = settings::shared("network", "default_gateway");
        const auto rule = text ? settings::gatewayRule(*text) : settings::GatewayRule{};
        if (!rule)
            return EINVAL;
        switch (rule->source) {
            case Source::Kernel:
                return routes::defaultRouteExists(exists);
            case Source::Fixed:
                *exists = rule->exists;
                return 0;
            case Source::Failure:
                return rule->code;
        }
        return EINVAL;
    });
}
