// heap.h - memory that transfers leave behind.
#pragma once

namespace MZCurl {

/// Gives free memory back to the system, where the C library can; the build picks the file. Takes
/// milliseconds. Thread: any.
void giveBackMemory();

/// Has the memory of each large body given back as soon as it is freed, where the C library can. Otherwise it gets used to
/// large blocks and keeps them. Thread: any, at the process's start.
void keepLargeBlocksApart();

}  // namespace MZCurl
