// runtime_info.cpp - the runtime information, from [runtime].
#include "common/c_functions.h"
#include "linux/settings/settings.h"

#include <platform/runtime_info.h>

int runtime_info_get_value_string(runtime_info_key_e key, char** out)
{
    if (key != RUNTIME_INFO_KEY_LANGUAGE)
        return -1;
    return seam::guarded(-1,
                         [&] { return seam::give(settings::shared("runtime", "language"), out); });
}
