// tickets.h - decides which transfers may receive a large answer, so that the memory for all answers has a limit.
//
// A body of over 64 KiB needs a ticket for large answers, one of over 4 MiB the ticket for huge ones. A transfer without its
// ticket waits. It keeps its ticket until it is taken out of the multi handle; then the body itself is counted (in_hand.h).
#pragma once

#include "curl/transfer/transfer.h"
#include "in_hand.h"

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

    /// @param bytes length of the body as far as it is known
    /// @return false when the body needs a ticket that is not free: the transfer is queued for it and must not go on
    bool mayGrow(Transfer& transfer, std::size_t bytes, Clock::time_point now);

    /// Gives a ticket to a queued transfer: to the sender that was served longest ago, and among its transfers to the first.
    /// @return null when no ticket is free or no transfer waits for it
    Transfer* next(Clock::time_point now);

    /// @return a transfer that has to give up its ticket because others wait for it; null when there is none
    Transfer* overdue(Clock::time_point now) const;

    /// Takes the ticket from a transfer that has nothing in memory; it stays in the queue.
    void giveBack(Transfer& transfer);

    /// Records that the transfer has ended: it leaves the queue, and keeps its ticket until `leave`.
    void ended(Transfer& transfer);

    /// Takes the transfer out of the queue, and its ticket back.
    void leave(Transfer& transfer);

    bool isWaiting() const { return !m_waiting.empty(); }

private:
    bool isFree(Ticket ticket) const;
    bool isWantedByAny(Ticket ticket) const;
    void give(Transfer& transfer, Ticket ticket, Clock::time_point now);
    std::size_t& taken(Ticket ticket) { return ticket == Ticket::Huge ? m_huge : m_large; }

    std::vector<Transfer*> m_waiting;  // the queue, in order of arrival
    std::vector<Transfer*> m_holders;  // transfers with a ticket that have not ended
    std::size_t m_large = 0;
    std::size_t m_huge = 0;
    std::uint64_t m_served = 0;  // number of tickets given so far
};

}  // namespace MZCurl
