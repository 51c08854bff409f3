// callbacks.cpp - enforces the limits of an answer, and stops libcurl from sending a request twice.
#include "callbacks.h"

#include "attempt.h"

#include <algorithm>
#include <new>

namespace MZCurl {
namespace {

std::size_t refuse(Attempt& attempt, const char* reason)
{
    attempt.refusal = reason;
    return CURL_WRITEFUNC_ERROR;
}

void noteMove(const Attempt& attempt)
{
    if (attempt.use.isShared()) {
        attempt.performer.moved();
    }
}

/// @return whether the beginning of the answer has to be kept, since the answer may be requested again. A paused HTTP/2
///   stream would stop the other streams of its connection (libcurl 7.88 reads no further), so an answer that has to wait
///   is requested again over a connection of its own; until then the reader must not get any of it. Only GETs share a
///   connection.
bool mayBePostponed(const Attempt& attempt, Growth growth)
{
    return attempt.use.isShared() && attempt.toldBytes == 0 && growth == Growth::ForNow;
}

/// @param piece bytes that have just arrived
/// @return the body's length as far as it is known, at least what has arrived
std::size_t foreseen(Attempt& attempt, std::size_t piece)
{
    curl_off_t told = -1;
    if (attempt.bodyBytes == 0 &&
        curl_easy_getinfo(attempt.curl.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &told) ==
            CURLE_OK &&
        told > 0) {
        attempt.toldBytes =
            static_cast<std::size_t>(std::min(told, static_cast<curl_off_t>(kMaxBodyBytes)));
    }
    return std::max(attempt.toldBytes, attempt.bodyBytes + piece);
}

/// Makes the transfer wait for a ticket.
/// @return the result for libcurl
std::size_t await(Attempt& attempt)
{
    if (!attempt.use.isShared()) {
        return CURL_WRITEFUNC_PAUSE;
    }
    attempt.postponed = true;
    return refuse(attempt, "Too many large answers at once");
}

/// Hands a piece of the body to the reader.
/// @return the result for libcurl
std::size_t deliver(Attempt& attempt, char* data, std::size_t length)
{
    if (attempt.options.write == nullptr) {
        return length;
    }
    try {
        // The cast is safe: a body has at most kMaxBodyBytes. Any result other than the length is a refusal, also the
        // one with which libcurl would pause the attempt.
        const unsigned int taken = attempt.options.write(data, 1, static_cast<unsigned int>(length),
                                                         attempt.options.writeData);
        return taken == length ? length : refuse(attempt, "The response was refused by its reader");
    } catch (...) {
        return refuse(attempt, "The reader of the response failed");
    }
}

/// Keeps a piece of an answer that may have to be requested again.
/// @return the result for libcurl
std::size_t keep(Attempt& attempt, const char* data, std::size_t length)
{
    try {
        attempt.early.append(data, length);
        return length;
    } catch (const std::bad_alloc&) {
        return refuse(attempt, "No memory for the response");
    }
}

}  // namespace

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* pointer)
{
    Attempt& attempt = *static_cast<Attempt*>(pointer);
    const std::size_t length = size * count;
    noteMove(attempt);
    if (length > kMaxBodyBytes - attempt.bodyBytes) {
        return refuse(attempt, "The response is larger than 33554375 bytes");
    }
    const Growth growth = attempt.performer.mayGrow(attempt.transfer, foreseen(attempt, length));
    if (growth == Growth::Wait) {
        return await(attempt);
    }
    attempt.bodyBytes += length;
    if (mayBePostponed(attempt, growth)) {
        return keep(attempt, data, length);
    }
    return deliverEarly(attempt) ? deliver(attempt, data, length) : CURL_WRITEFUNC_ERROR;
}

bool deliverEarly(Attempt& attempt)
{
    std::string early;
    early.swap(attempt.early);
    return early.empty() || deliver(attempt, early.data(), early.size()) == early.size();
}

std::size_t onHeader(char* /*data*/, std::size_t size, std::size_t count, void* pointer)
{
    Attempt& attempt = *static_cast<Attempt*>(pointer);
    const std::size_t length = size * count;
    noteMove(attempt);
    attempt.headerBytes += length;
    return attempt.headerBytes <= kMaxHeaderBytes
               ? length
               : refuse(attempt, "The response has more than 300 KiB of headers");
}

int onSocket(void* pointer, curl_socket_t descriptor, curlsocktype /*purpose*/)
{
    const Attempt& attempt = *static_cast<Attempt*>(pointer);
    return attempt.performer.opened(attempt.transfer, descriptor) ? CURL_SOCKOPT_OK
                                                                  : CURL_SOCKOPT_ERROR;
}

int onRequest(void* pointer, char* remoteAddress, char* localAddress, int remotePort, int localPort)
{
    Attempt& attempt = *static_cast<Attempt*>(pointer);
    const auto known = [](const char* address) { return address != nullptr ? address : ""; };
    const Ends ends{known(localAddress), known(remoteAddress), localPort, remotePort};
    const char* refusal = attempt.performer.sending(attempt.transfer, ends);
    if (refusal == nullptr && ++attempt.sendings > 1 &&
        !attempt.performer.maySendAgain(attempt.transfer)) {
        refusal = "The connection was lost, and the request is not sent a second time";
    }
    if (refusal != nullptr) {
        attempt.refusal = refusal;
        return CURL_PREREQFUNC_ABORT;
    }
    attempt.sent = std::chrono::steady_clock::now();
    return CURL_PREREQFUNC_OK;
}

}  // namespace MZCurl
