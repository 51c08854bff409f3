// tickets.cpp - gives tickets for large answers, and takes them back.
#include "tickets.h"

#include "admission.h"
#include "quotas.h"

#include <algorithm>

namespace MZCurl {
namespace {

void drop(std::vector<Transfer*>& transfers, const Transfer* transfer)
{
    transfers.erase(std::remove(transfers.begin(), transfers.end(), transfer), transfers.end());
}

std::uint64_t servedOf(const Transfer& transfer)
{
    return transfer.place.lane->sender->served;
}

}  // namespace

Tickets::Tickets()
{
    // A transfer that waits for a ticket or has one is in a slot: the callbacks need no memory.
    m_waiting.reserve(kMostSlots);
    m_holders.reserve(kMostSlots);
}

bool Tickets::isFree(Ticket ticket) const
{
    return ticket == Ticket::Huge ? m_huge + inHand(ticket) < kHugeTickets
                                  : m_large + inHand(ticket) < kLargeTickets;
}

bool Tickets::isWantedByAny(Ticket ticket) const
{
    return std::any_of(m_waiting.begin(), m_waiting.end(),
                       [ticket](const Transfer* t) { return t->place.ticket.wants == ticket; });
}

bool Tickets::mayGrow(Transfer& transfer, std::size_t bytes, Clock::time_point now)
{
    const Ticket needed = ticketFor(bytes);
    if (needed <= transfer.place.ticket.has) {
        transfer.place.ticket.moved = now;
        return true;
    }
    if (transfer.place.ticket.wants == needed) {
        return false;
    }
    if (!isWantedByAny(needed) && isFree(needed)) {
        give(transfer, needed, now);
        return true;
    }
    transfer.place.ticket.wants = needed;
    m_waiting.push_back(&transfer);
    return false;
}

void Tickets::give(Transfer& transfer, Ticket ticket, Clock::time_point now)
{
    if (transfer.place.ticket.has == Ticket::None) {
        m_holders.push_back(&transfer);
    } else {
        --taken(transfer.place.ticket.has);
    }
    ++taken(ticket);
    transfer.place.ticket = {ticket, Ticket::None, now, now};
    transfer.place.lane->sender->served = ++m_served;
}

Transfer* Tickets::next(Clock::time_point now)
{
    Transfer* chosen = nullptr;
    for (Transfer* const transfer : m_waiting) {
        if (isFree(transfer->place.ticket.wants) &&
            (chosen == nullptr || servedOf(*transfer) < servedOf(*chosen))) {
            chosen = transfer;
        }
    }
    if (chosen != nullptr) {
        drop(m_waiting, chosen);
        give(*chosen, chosen->place.ticket.wants, now);
    }
    return chosen;
}

Transfer* Tickets::overdue(Clock::time_point now) const
{
    const auto isOverdue = [this, now](const Transfer* transfer) {
        const TicketHold& ticket = transfer->place.ticket;
        const bool isSilent = ticket.wants == Ticket::None && now - ticket.moved >= kSilentTurn;
        return (isSilent || now - ticket.since >= kLongestAnswer) && isWantedByAny(ticket.has);
    };
    const auto found = std::find_if(m_holders.begin(), m_holders.end(), isOverdue);
    return found != m_holders.end() ? *found : nullptr;
}

void Tickets::giveBack(Transfer& transfer)
{
    if (transfer.place.ticket.has != Ticket::None) {
        drop(m_holders, &transfer);
        --taken(transfer.place.ticket.has);
        transfer.place.ticket.has = Ticket::None;
    }
}

void Tickets::ended(Transfer& transfer)
{
    drop(m_waiting, &transfer);
    drop(m_holders, &transfer);
    transfer.place.ticket.wants = Ticket::None;
}

void Tickets::leave(Transfer& transfer)
{
    ended(transfer);
    giveBack(transfer);
}

}  // namespace MZCurl
