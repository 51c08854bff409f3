// callbacks.cpp - enforces the limits of an answer, and stops libcurl from sending a request twice.
#include "callbacks.h"

#include "admission.h"
#include "connections.h"
#include "gate.h"
#include "repeat.h"
#include "tickets.h"
#include "transfer.h"

#include <algorithm>
#include <new>

namespace MZCurl {
namespace {

std::size_t refuse(Transfer& transfer, const char* reason)
{
    transfer.refusal = reason;
    return CURL_WRITEFUNC_ERROR;
}

bool isShared(const Transfer& transfer)
{
    return transfer.connection != nullptr && transfer.connection->shared;
}

void noteMove(const Transfer& transfer)
{
    if (isShared(transfer) && transfer.http2Moved != nullptr) {
        *transfer.http2Moved = true;
    }
}

/// @return whether the beginning of the answer has to be kept, since the answer may be requested again. A paused HTTP/2
///   stream would stop the other streams of its connection (libcurl 7.88 reads no further), so an answer that has to wait
///   is requested again over a connection of its own; until then the reader must not get any of it. Only GETs share a
///   connection.
bool mayBePostponed(const Transfer& transfer)
{
    return isShared(transfer) && transfer.toldBytes == 0 && transfer.ticket.has != Ticket::Huge;
}

/// @param piece bytes that have just arrived
/// @return the body's length as far as it is known, at least what has arrived
std::size_t foreseen(Transfer& transfer, std::size_t piece)
{
    curl_off_t told = -1;
    if (transfer.bodyBytes == 0 &&
        curl_easy_getinfo(transfer.curl.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &told) ==
            CURLE_OK &&
        told > 0) {
        transfer.toldBytes =
            static_cast<std::size_t>(std::min(told, static_cast<curl_off_t>(kMaxBodyBytes)));
    }
    return std::max(transfer.toldBytes, transfer.bodyBytes + piece);
}

/// Makes the transfer wait for a ticket.
/// @return the result for libcurl
std::size_t await(Transfer& transfer)
{
    if (!isShared(transfer)) {
        Connections::pause(transfer);
        return CURL_WRITEFUNC_PAUSE;
    }
    transfer.postponed = true;
    return refuse(transfer, "Too many large answers at once");
}

/// Hands a piece of the body to the reader.
/// @return the result for libcurl
std::size_t deliver(Transfer& transfer, char* data, std::size_t length)
{
    if (transfer.write == nullptr) {
        return length;
    }
    try {
        // The cast is safe: a body has at most kMaxBodyBytes. Any result other than the length is a refusal, also the
        // one with which libcurl would pause the transfer.
        const unsigned int taken =
            transfer.write(data, 1, static_cast<unsigned int>(length), transfer.writeData);
        return taken == length ? length
                               : refuse(transfer, "The response was refused by its reader");
    } catch (...) {
        return refuse(transfer, "The reader of the response failed");
    }
}

/// Keeps a piece of an answer that may have to be requested again.
/// @return the result for libcurl
std::size_t keep(Transfer& transfer, const char* data, std::size_t length)
{
    try {
        transfer.early.append(data, length);
        return length;
    } catch (const std::bad_alloc&) {
        return refuse(transfer, "No memory for the response");
    }
}

}  // namespace

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* pointer)
{
    Transfer& transfer = *static_cast<Transfer*>(pointer);
    const std::size_t length = size * count;
    noteMove(transfer);
    if (length > kMaxBodyBytes - transfer.bodyBytes) {
        return refuse(transfer, "The response is larger than 33554375 bytes");
    }
    if (transfer.tickets != nullptr) {
        const auto now = Tickets::Clock::now();
        if (!transfer.tickets->mayGrow(transfer, foreseen(transfer, length), now)) {
            return await(transfer);
        }
    }
    transfer.bodyBytes += length;
    if (transfer.tickets != nullptr && mayBePostponed(transfer)) {
        return keep(transfer, data, length);
    }
    return deliverEarly(transfer) ? deliver(transfer, data, length) : CURL_WRITEFUNC_ERROR;
}

bool deliverEarly(Transfer& transfer)
{
    std::string early;
    early.swap(transfer.early);
    return early.empty() || deliver(transfer, early.data(), early.size()) == early.size();
}

std::size_t onHeader(char* /*data*/, std::size_t size, std::size_t count, void* pointer)
{
    Transfer& transfer = *static_cast<Transfer*>(pointer);
    const std::size_t length = size * count;
    noteMove(transfer);
    transfer.headerBytes += length;
    return transfer.headerBytes <= kMaxHeaderBytes
               ? length
               : refuse(transfer, "The response has more than 300 KiB of headers");
}

int onRequest(void* pointer, char* /*remoteAddress*/, char* localAddress, int remotePort,
              int localPort)
{
    Transfer& transfer = *static_cast<Transfer*>(pointer);
    if (transfer.connections != nullptr) {
        transfer.admission->resolved(transfer);
        if (!transfer.connections->begin(transfer, localAddress, localPort, remotePort)) {
            return CURL_PREREQFUNC_ABORT;
        }
    }
    if (++transfer.sendings > 1 && !mayBeSentOnceMore(transfer)) {
        transfer.refusal = "The connection was lost, and the request is not sent a second time";
        return CURL_PREREQFUNC_ABORT;
    }
    transfer.sent = std::chrono::steady_clock::now();
    if (transfer.host != nullptr) {
        transfer.host->open = true;
    }
    return CURL_PREREQFUNC_OK;
}

}  // namespace MZCurl
