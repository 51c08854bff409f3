// width.h - the limit of simultaneous requests to one host: low while answers come quickly, raised when none does.
//
// Waiting for a kept connection that is about to be free is faster than a new connection: its handshake delays all other
// transfers of the worker.
#pragma once

#include <chrono>
#include <cstddef>

namespace MZCurl {

/// Counts requests that may use kept connections: GETs. Thread: the worker.
class Width {
public:
    using Clock = std::chrono::steady_clock;

    /// @return whether another request may go now
    bool hasRoom(Clock::time_point now) const { return m_underWay < at(now); }

    /// @param since  when the request began to wait for room
    /// @return when the limit is raised if no answer comes quickly before
    Clock::time_point widensAt(Clock::time_point since) const;

    /// Doubles the limit.
    void widen(Clock::time_point now);

    void begun() { ++m_underWay; }
    /// @param sent  when the request that has ended was sent; the clock's epoch when it was not sent
    void ended(Clock::time_point sent, Clock::time_point now);

private:
    std::size_t at(Clock::time_point now) const;

    std::size_t m_underWay = 0;
    std::size_t m_width = 0;  // the limit at m_widened
    Clock::time_point m_widened{};
    Clock::time_point m_quick{};  // the last time that a request ended soon after it was sent
};

}  // namespace MZCurl
