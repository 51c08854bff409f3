// tickets.h - which transfers may go on with a large answer, so that all answers in memory have a bound.
//
// A body of over 64 KiB needs a ticket for large answers, one of over 4 MiB the ticket for huge ones. Without it the transfer
// waits. It keeps its ticket until it is taken out of the multi handle; from there on the body itself is counted (in_hand.h).
#pragma once

#include "in_hand.h"
#include "transfer.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace MZCurl {

/// Thread: the worker.
class Tickets {
public:
    using Clock = std::chrono::steady_clock;

    Tickets();
    Tickets(const Tickets&) = delete;
    Tickets& operator=(const Tickets&) = delete;

    /// The body of a transfer will have so many bytes at least. @return false when it needs a ticket that it does not get
    /// now: it is in the queue, and must not go on
    bool mayGrow(Transfer& transfer, std::size_t bytes, Clock::time_point now);

    /// Gives a ticket to a transfer in the queue: to one of the sender that was served longest ago, and there to the one
    /// that came first. @return null when no ticket is free or nobody waits for it
    Transfer* next(Clock::time_point now);

    /// @return a transfer that has to give up its ticket, since others wait for it; null when there is none
    Transfer* overdue(Clock::time_point now) const;

    /// The transfer waits on with nothing in memory.
    void giveBack(Transfer& transfer);

    /// The transfer has ended: it waits for nothing, and keeps what it has until it leaves.
    void ended(Transfer& transfer);

    /// The transfer gives back what it has.
    void leave(Transfer& transfer);

    bool isWaiting() const { return !m_waiting.empty(); }

private:
    bool isFree(Ticket ticket) const;
    bool isWantedByAny(Ticket ticket) const;
    void give(Transfer& transfer, Ticket ticket, Clock::time_point now);
    std::size_t& taken(Ticket ticket) { return ticket == Ticket::Huge ? m_huge : m_large; }

    std::vector<Transfer*> m_waiting;  // in order of arrival
    std::vector<Transfer*> m_holders;  // that have not ended
    std::size_t m_large = 0;
    std::size_t m_huge = 0;
    std::uint64_t m_served = 0;  // tickets given so far
};

}  // namespace MZCurl
