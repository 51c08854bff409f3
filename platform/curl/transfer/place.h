// place.h - where a transfer stands in the multi handle that has it.
#pragma once

#include <platform/MZCurl.h>

#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <string>

namespace MZCurl {

struct Host;
struct Lane;
struct Transfer;

/// Transfers in one state. A transfer's list node moves from list to list, so that only accepting a transfer needs memory.
using TransferList = std::list<Transfer*>;

/// The size class of an answer, and the ticket that it needs.
enum class Ticket { None, Large, Huge };

/// What a transfer has and wants of the tickets. Writer: Tickets.
struct TicketHold {
    Ticket has = Ticket::None;
    Ticket wants = Ticket::None;                  // it waits for this one
    std::chrono::steady_clock::time_point since;  // when it got the ticket that it has
    std::chrono::steady_clock::time_point moved;  // when its body grew last
};

struct Place {
    // writer: the multi handle
    std::atomic<const void*> owner{nullptr};
    MZCurlEasy* easy = nullptr;
    TransferList* home = nullptr;  // also written by moveTo
    TransferList::iterator node;
    std::shared_ptr<const std::string>
        hostKey;                                // never null once the multi handle has the transfer
    std::chrono::steady_clock::time_point due;  // when it is begun again

    Host* host = nullptr;  // writer: Gate
    TicketHold ticket;

    // writer: Admission
    Lane* lane = nullptr;
    std::chrono::steady_clock::time_point queued;  // in its lane
    bool hasSlot = false;
    bool countsAtHost = false;  // among the requests under way to its host
    bool opening = false;       // a GET whose request is not sent yet
    bool resolving = false;     // the name of its server, as far as is known
};

}  // namespace MZCurl
