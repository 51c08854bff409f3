// allocation_switch.cpp - replaces the nothrow form of operator new in the test program.
#include "allocation_switch.h"

#include <new>

namespace {
thread_local int g_untilFailure = 0;
}

void FailNothrowAllocation(int n)
{
    g_untilFailure = n;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    if (g_untilFailure > 0 && --g_untilFailure == 0) {
        return nullptr;
    }
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
