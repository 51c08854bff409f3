// clock_1970.cpp - a preloaded library that sets a program's clock to January 1970: a device without a
// battery that has not asked for the time yet.
#include <ctime>

extern "C" __attribute__((visibility("default"))) time_t time(time_t* result) noexcept
{
    constexpr time_t kMinute = 60;
    if (result != nullptr)
        *result = kMinute;
    return kMinute;
}
