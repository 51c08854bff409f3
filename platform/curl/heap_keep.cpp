// heap_keep.cpp - for C libraries without such controls: does nothing.
#include "heap.h"

namespace MZCurl {

void giveBackMemory() {}

void keepLargeBlocksApart() {}

}  // namespace MZCurl
