// waiting.h - waits for other threads: long enough for a busy machine, but with an end.
#pragma once

#include <chrono>
#include <thread>

/// Checks repeatedly until the condition holds, for half a minute at most.
/// @return whether it holds
template <typename Condition>
bool Eventually(Condition condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// Gives another thread time for an action that it must not take.
/// @return true if the condition stayed false
template <typename Condition>
bool NotYet(Condition condition)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return !condition();
}
