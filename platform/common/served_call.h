// served_call.h - the bus call that a thread serves: what is asked once for each call goes by its number.
#pragma once

#include <atomic>
#include <cstdint>

namespace servedcall {

inline std::atomic<std::uint32_t> g_last{0};
inline thread_local std::uint32_t t_number = 0;

/// The calling thread serves a new call from now on, or none.
inline void set(bool any)
{
    t_number = any ? ++g_last : 0;
}

/// @return a number that no other call of the process has; 0 when the calling thread serves none
inline std::uint32_t number()
{
    return t_number;
}

}  // namespace servedcall
