// system_info.cpp - the system information, from [system].
#include "common/c_functions.h"
#include "linux/settings/settings.h"

#include <platform/system_info.h>

int system_info_get_value_int(system_info_key_e key, int* out)
{
    if (key != SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE)
        return -1;
    return seam::guarded(-1, [&] {
        const auto value = settings::number("system", "vantor_server_type");
        if (!value)
            return -1;
        *out = *value;
        return 0;
    });
}
