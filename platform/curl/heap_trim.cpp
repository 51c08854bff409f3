// heap_trim.cpp - for C libraries that keep freed memory until malloc_trim.
#include "heap.h"

#include <malloc.h>

namespace MZCurl {
namespace {

// Bytes. glibc allocates blocks from this size on as mappings of their own, which grow without a copy. The value is fixed:
// by default glibc raises it to the size of the largest freed block, up to 32 MiB.
constexpr int kOwnMapping = 2 * 1024 * 1024;

// Bytes of free memory at the end of the heap that the process keeps. With fewer, ordinary calls would return memory and
// request it again.
constexpr int kKept = kOwnMapping;

}  // namespace

void giveBackMemory()
{
    malloc_trim(0);
}

void keepLargeBlocksApart()
{
    mallopt(M_MMAP_THRESHOLD, kOwnMapping);
    mallopt(M_TRIM_THRESHOLD, kKept);
}

}  // namespace MZCurl
