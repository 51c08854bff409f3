// allocation_switch.h - makes an allocation with std::nothrow fail in the tested code.
#pragma once

/// The n-th allocation with std::nothrow of this thread from now on fails, once. 1 is the next allocation, 0
/// switches this off.
void FailNothrowAllocation(int n);
