// clock_1970.cpp - preloaded, it takes a program back to the minute after the clock began: as on a
// device that has no battery and has not asked for the time yet.
#include <ctime>

extern "C" __attribute__((visibility("default"))) time_t time(time_t* result) noexcept
{
    constexpr time_t kMinute = 60;
    if (result != nullptr)
        *result = kMinute;
    return kMinute;
}
