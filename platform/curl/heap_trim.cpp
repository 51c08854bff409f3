// heap_trim.cpp - for a C library that keeps what was freed until it is told to let go.
#include "heap.h"

#include <malloc.h>

namespace MZCurl {

void giveBackMemory()
{
    malloc_trim(0);
}

}  // namespace MZCurl
