// heap.h - returns memory that transfers have freed to the system.
#pragma once

namespace MZCurl {

/// Returns free memory to the system, if the C library can (the build selects the file). Takes milliseconds.
/// Thread: any.
void giveBackMemory();

/// Makes the C library return the memory of each large body as soon as it is freed, if it can. Without this it adapts to
/// large blocks and keeps them. Thread: any, at the start of the process.
void keepLargeBlocksApart();

}  // namespace MZCurl
