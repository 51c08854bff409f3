// in_hand.h - counts large bodies that have left the multi handle and are still in memory (CountBody).
#pragma once

#include "quotas.h"

#include <cstddef>

namespace MZCurl {

/// The size class of an answer, and the ticket that it needs.
enum class Ticket { None, Large, Huge };

inline Ticket ticketFor(std::size_t bytes)
{
    if (bytes <= kSmallAnswer) {
        return Ticket::None;
    }
    return bytes <= kLargeAnswer ? Ticket::Large : Ticket::Huge;
}

/// @return number of counted bodies of that size class. Thread: any
std::size_t inHand(Ticket ticket);

}  // namespace MZCurl
