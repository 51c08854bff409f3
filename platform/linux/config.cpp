// config.cpp - the configuration keys, from [config].
#include "common/c_functions.h"
#include "linux/settings/settings.h"

#include <platform/config.h>

namespace {

constexpr const char* kGroup = "config";

}  // namespace

char* vconf_get_str(const char* key)
{
    return seam::guarded<char*>(nullptr,
                                [&] { return seam::heapCopy(settings::shared(kGroup, key)); });
}

int vconf_get_int(const char* key, int* out)
{
    return seam::guarded(-1, [&] {
        const auto value = settings::number(kGroup, key);
        if (!value)
            return -1;
        *out = *value;
        return 0;
    });
}
