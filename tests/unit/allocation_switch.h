// allocation_switch.h - lets an allocation fail that the code makes with std::nothrow.
#pragma once

/// The n-th allocation with std::nothrow of this thread from now on fails, once. 1 is the next one,
/// 0 none.
void FailNothrowAllocation(int n);
