// in_hand.h - counts large bodies that have left the multi handle and are still in memory (CountBody).
#pragma once

#include "curl/transfer/place.h"
#include "quotas.h"

#include <cstddef>

namespace MZCurl {

/// @return the ticket that an answer of this size needs
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
