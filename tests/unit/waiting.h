// waiting.h - how tests wait for other threads: long enough for a busy machine, never for ever.
#pragma once

#include <chrono>
#include <thread>

/// Looks until the condition holds, half a minute at most. @return whether it does
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

/// Gives another thread the time to do what it must not do. @return whether it did not
template <typename Condition>
bool NotYet(Condition condition)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return !condition();
}
