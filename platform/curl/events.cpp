// events.cpp - what the multi handle does when libcurl tells or asks something during a transfer.
#include "multi.h"

namespace MZCurl {

bool MZCurlMulti::Impl::opened(Transfer& transfer, curl_socket_t descriptor)
{
    m_admission.resolved(transfer);
    return m_connections.opened(descriptor, transfer.progress.number);
}

const char* MZCurlMulti::Impl::sending(Transfer& transfer, const Ends& ends)
{
    m_admission.sending(transfer);
    const Request request{transfer.attempt->curl.get(), transfer.progress.number,
                          *transfer.place.hostKey, transfer.mayBeSentAgain(),
                          transfer.attempt->anonymous};
    const char* const refusal = m_connections.begin(transfer.attempt->use, request, ends);
    if (refusal == nullptr) {
        Gate::open(transfer);
    }
    return refusal;
}

bool MZCurlMulti::Impl::maySendAgain(Transfer& transfer)
{
    const ConnectionUse& use = transfer.attempt->use;
    return mayBeSentOnceMore(transfer, use.connection != nullptr && !use.kept && !use.isShared());
}

Growth MZCurlMulti::Impl::mayGrow(Transfer& transfer, std::size_t bytes)
{
    const ConnectionUse& use = transfer.attempt->use;
    if (!m_tickets.mayGrow(transfer, bytes, Tickets::Clock::now())) {
        if (!use.isShared()) {
            Connections::pause(use);
        }
        return Growth::Wait;
    }
    return transfer.place.ticket.has == Ticket::Huge ? Growth::ForGood : Growth::ForNow;
}

}  // namespace MZCurl
