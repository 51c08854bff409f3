// callbacks.cpp - the limits on what a server may send, and the guard against a request sent twice.
#include "callbacks.h"

#include "admission.h"
#include "connections.h"
#include "gate.h"
#include "repeat.h"
#include "transfer.h"

namespace MZCurl {
namespace {

std::size_t refuse(Transfer& transfer, const char* reason)
{
    transfer.refusal = reason;
    return CURL_WRITEFUNC_ERROR;
}

void noteMove(const Transfer& transfer)
{
    if (transfer.connection != nullptr && transfer.connection->shared &&
        transfer.http2Moved != nullptr) {
        *transfer.http2Moved = true;
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
    transfer.bodyBytes += length;
    if (transfer.write == nullptr) {
        return length;
    }
    try {
        // The limit above makes the narrowing harmless. Any other number than the length is a
        // refusal, the one that would pause the transfer included.
        const unsigned int taken =
            transfer.write(data, static_cast<unsigned int>(size), static_cast<unsigned int>(count),
                           transfer.writeData);
        return taken == length ? length
                               : refuse(transfer, "The response was refused by its reader");
    } catch (...) {
        return refuse(transfer, "The reader of the response failed");
    }
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
    if (transfer.host != nullptr) {
        transfer.host->open = true;
    }
    return CURL_PREREQFUNC_OK;
}

}  // namespace MZCurl
