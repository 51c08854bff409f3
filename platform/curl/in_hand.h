// in_hand.h - large bodies that have left the multi handle and are still in memory (CountBody).
#pragma once

#include "quotas.h"

#include <cstddef>

namespace MZCurl {

/// How large an answer is, and the ticket that it needs.
enum class Ticket { None, Large, Huge };

inline Ticket ticketFor(std::size_t bytes)
{
    if (bytes <= kSmallAnswer) {
        return Ticket::None;
    }
    return bytes <= kLargeAnswer ? Ticket::Large : Ticket::Huge;
}

/// @return how many bodies of that size are counted. Thread: any
std::size_t inHand(Ticket ticket);

}  // namespace MZCurl
