// library_start.cpp - what the library does when it is loaded, before main: the process has one
// thread until then, and setting a variable is not safe beside a thread that reads one.
#include "common/c_functions.h"
#include "linux/settings/module_environment.h"

namespace {

[[gnu::constructor]] void start()
{
    seam::guarded<int>(0, [] {
        keystore::takeEnvironment();
        return 0;
    });
}

}  // namespace
