// deletions.h - when an object is freed, for tests of the order in which things are let go of.
#pragma once

/// Notes "deleted" in the timeline when the memory at that address is given back, once. Null: none.
void WatchDeletion(const void* pMemory);
