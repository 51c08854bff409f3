// heap.h - memory that a burst of transfers has left behind.
#pragma once

namespace MZCurl {

/// Gives free memory back to the system, where the C library can; the build picks the file. Takes
/// milliseconds. Thread: any.
void giveBackMemory();

}  // namespace MZCurl
