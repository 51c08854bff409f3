// heap_trim.cpp - for C libraries that keep freed memory until malloc_trim.
#include "heap.h"

#include <platform/process.h>

#include <malloc.h>

namespace {

// Bytes. glibc allocates blocks from this size on as mappings of their own, which grow without a copy.
// The value is fixed: by default glibc raises it to the size of the largest freed block, up to 32 MiB.
constexpr int kOwnMapping = 2 * 1024 * 1024;

// Bytes of free memory at the end of the heap that the process keeps. With fewer, ordinary calls would
// return memory and request it again.
constexpr int kKept = kOwnMapping;

}  // namespace

void process::keepLargeBlocksApart()
{
    mallopt(M_MMAP_THRESHOLD, kOwnMapping);
    mallopt(M_TRIM_THRESHOLD, kKept);
}

void platform_process_give_back_memory(void)
{
    malloc_trim(0);
}
