// heap_keep.cpp - for C libraries without such controls: does nothing.
#include "heap.h"

#include <platform/process.h>

void process::keepLargeBlocksApart() {}

void platform_process_give_back_memory(void) {}
