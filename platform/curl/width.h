// width.h - how many requests go to one host at the same time: few while answers come back quickly, more as soon as none does.
//
// A request that finds a kept connection about to be free is done sooner over that one than over a new one, whose handshake
// holds up all others on the worker.
#pragma once

#include <chrono>
#include <cstddef>

namespace MZCurl {

/// Counts requests that may go over kept connections: GETs. Thread: the worker.
class Width {
public:
    using Clock = std::chrono::steady_clock;

    /// @return whether one request more may go now
    bool hasRoom(Clock::time_point now) const { return m_underWay < at(now); }

    /// @param since  when the request that waits for room began to
    /// @return when there will be more room, if nothing comes back quickly until then
    Clock::time_point widensAt(Clock::time_point since) const;

    /// Makes room for as many requests again.
    void widen(Clock::time_point now);

    void begun() { ++m_underWay; }
    /// @param sent  when the request that has ended was sent; the clock's zero when it was not
    void ended(Clock::time_point sent, Clock::time_point now);

private:
    std::size_t at(Clock::time_point now) const;

    std::size_t m_underWay = 0;
    std::size_t m_width = 0;  // at the time of the last widening
    Clock::time_point m_widened{};
    Clock::time_point m_quick{};  // the last time that a request ended soon after it was sent
};

}  // namespace MZCurl
