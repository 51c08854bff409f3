// in_hand.cpp - counts the large bodies that have left the multi handle.
#include "in_hand.h"

#include <platform/MZCurl.h>

#include <atomic>
#include <memory>
#include <new>

namespace MZCurl {
namespace {

using Count = std::atomic<std::size_t>;

Count& countOf(Ticket ticket)
{
    static Count large{0};
    static Count huge{0};
    return ticket == Ticket::Huge ? huge : large;
}

void countDown(void* count)
{
    --*static_cast<Count*>(count);
}

}  // namespace

std::size_t inHand(Ticket ticket)
{
    return countOf(ticket);
}

std::shared_ptr<void> CountBody(std::size_t uBytes) noexcept
{
    const Ticket ticket = ticketFor(uBytes);
    if (ticket == Ticket::None) {
        return nullptr;
    }
    Count& count = countOf(ticket);
    ++count;
    try {
        return {static_cast<void*>(&count), countDown};
    } catch (const std::bad_alloc&) {
        // The constructor that failed has called countDown.
        return nullptr;
    }
}

}  // namespace MZCurl
