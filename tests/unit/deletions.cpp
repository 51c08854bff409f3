// deletions.cpp - replaces operator new and delete in the test program.
#include "deletions.h"

#include "log_matchers.h"

#include <cstdlib>
#include <new>

namespace {

thread_local const void* t_pWatched = nullptr;

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

void* operator new(std::size_t size)
{
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
