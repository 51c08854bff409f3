// heap_trim.cpp - for a C library that keeps what was freed until it is told to let go.
#include "heap.h"

#include <malloc.h>

namespace MZCurl {
namespace {

// Bytes. glibc makes a mapping of its own for a block from here on, which grows without being copied. Left alone it
// raises its limit to the largest block that was freed, up to 32 MiB.
constexpr int kOwnMapping = 2 * 1024 * 1024;

// Bytes free at the end of the heap that stay with the process. Fewer would be given back and asked for again by
// ordinary calls.
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
