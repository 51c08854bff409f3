// heap_double.h - makes large allocations fail, and notes when an object is freed. Thread: affects only the
// calling thread.
#pragma once

#include <cstddef>

/// Notes "deleted" in the timeline, once, when the memory at that address is freed. Null switches this off.
void WatchDeletion(const void* pMemory);

/// The n-th allocation of at least so many bytes from now on throws std::bad_alloc, once. 1 is the next one,
/// 0 switches this off. Smaller allocations, such as those of log lines, do not count.
void FailLargeAllocation(std::size_t bytes, int n);
