// heap_keep.cpp - for a C library that has nothing to be told.
#include "heap.h"

namespace MZCurl {

void giveBackMemory() {}

void keepLargeBlocksApart() {}

}  // namespace MZCurl
