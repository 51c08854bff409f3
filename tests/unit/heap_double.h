// heap_double.h - the heap as a test wants it: large allocations that fail, and when an object is
// freed. Thread: counts for the calling one alone.
#pragma once

#include <cstddef>

/// Notes "deleted" in the timeline when the memory at that address is given back, once. Null: none.
void WatchDeletion(const void* pMemory);

/// The n-th allocation of at least so many bytes from now on throws std::bad_alloc, once. 1 is the
/// next one, 0 none. Smaller ones, as of log lines, do not count.
void FailLargeAllocation(std::size_t bytes, int n);
