// library_start.cpp - what only the library has: what it does when it is loaded, before main, and what it says of itself. The
// process has one thread until then, and setting a variable is not safe beside a thread that reads one.
#include "common/c_functions.h"
#include "linux/settings/module_environment.h"

#include <platform/device_conf.h>

namespace {

[[gnu::constructor]] void start()
{
    seam::guarded<int>(0, [] {
        keystore::takeEnvironment();
        return 0;
    });
}

}  // namespace

int platform_reads_device_conf(void)
{
    return 1;
}
