// heap.h - the memory that the C library keeps.
#pragma once

namespace process {

/// Makes the C library return the memory of each large block as soon as it is freed, if it can (the build selects the file).
/// Without this it adapts to large blocks and keeps them.
/// Thread: main, before any other thread exists.
void keepLargeBlocksApart();

}  // namespace process
