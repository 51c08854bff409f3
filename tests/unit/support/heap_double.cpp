// heap_double.cpp - replaces operator new and delete in the test program.
#include "heap_double.h"

#include "log_matchers.h"

#include <cstdlib>
#include <new>

namespace {

thread_local const void* t_pWatched = nullptr;
thread_local std::size_t t_large = 0;
thread_local int t_untilFailure = 0;

void Free(void* pMemory)
{
    if (pMemory != nullptr && pMemory == t_pWatched) {
        t_pWatched = nullptr;
        Note("deleted");
    }
    std::free(pMemory);
}

}  // namespace

void WatchDeletion(const void* pMemory)
{
    t_pWatched = pMemory;
}

void FailLargeAllocation(std::size_t bytes, int n)
{
    t_large = bytes;
    t_untilFailure = n;
}

void* operator new(std::size_t size)
{
    if (t_untilFailure > 0 && size >= t_large && --t_untilFailure == 0) {
        throw std::bad_alloc();
    }
    if (void* pMemory = std::malloc(size)) {
        return pMemory;
    }
    throw std::bad_alloc();
}

void operator delete(void* pMemory) noexcept
{
    Free(pMemory);
}

void operator delete(void* pMemory, std::size_t) noexcept
{
    Free(pMemory);
}
