// repeat.cpp - decides which transfers are begun again.
#include "repeat.h"

#include <platform/log.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace MZCurl {
namespace {

using std::chrono::milliseconds;

constexpr const char* kTag = "BILLING_PLATFORM";

// A restarting server refuses connections for some milliseconds (nginx) to a second (Apache), longer under load. Before
// that it resets the connections that it has not accepted.
constexpr std::array kRefusedPauses{milliseconds(250), milliseconds(500), milliseconds(1000),
                                    milliseconds(2000)};

// Least time left for another attempt: with less a handshake is not worth its cost.
constexpr milliseconds kLeastTime{1000};

bool hasTime(const Transfer& transfer)
{
    return transfer.options.timeout == 0 || timeLeft(transfer) >= kLeastTime;
}

/// @return whether the connection, or the HTTP/2 stream, ended after the request was sent and before any byte of the body
bool endedWithoutAnswer(const Attempt& attempt, CURLcode result)
{
    if (attempt.bodyBytes > 0 || attempt.sendings == 0) {
        return false;
    }
    switch (result) {
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
            return true;
        case CURLE_ABORTED_BY_CALLBACK:  // a callback has stopped libcurl's own repetition
            return attempt.sendings > 1;
        default:
            return false;
    }
}

/// @return whether the connection may have caused the end. A server that ends the first request of a connection of its own
///   does so on purpose.
bool connectionIsSuspect(const Attempt& attempt)
{
    const ConnectionUse& use = attempt.use;
    return use.kept || attempt.sendings > 1 || use.isShared() ||
           (use.connection != nullptr && use.connection->given);
}

/// @return whether the server's kernel refused the connection, or reset it before a byte of the request was sent over it
bool wasRefused(const Transfer& transfer, const Attempt& attempt, CURLcode result)
{
    if (attempt.use.ended) {
        return true;
    }
    // Sendings before a handshake went over a kept connection, which was lost, and libcurl opened this one for the request.
    const bool nothingSent = attempt.sendings == 0 || transfer.mayBeSentAgain();
    long error = 0;
    curl_easy_getinfo(attempt.curl.get(), CURLINFO_OS_ERRNO, &error);
    switch (result) {
        case CURLE_COULDNT_CONNECT:
            return error == ECONNREFUSED || error == ECONNRESET;
        case CURLE_SSL_CONNECT_ERROR:
            return nothingSent && error == ECONNRESET;
        case CURLE_SEND_ERROR:  // between the handshake and the request
        case CURLE_RECV_ERROR:
        case CURLE_HTTP2:
            return attempt.sendings == 0 && (error == ECONNRESET || error == EPIPE);
        default:
            return false;
    }
}

}  // namespace

Again whyAgain(const Transfer& transfer)
{
    const CURLcode result = transfer.progress.result;
    if (result == CURLE_OK || transfer.attempt == nullptr || !transfer.attempt->attached ||
        !hasTime(transfer)) {
        return Again::No;
    }
    const Attempt& attempt = *transfer.attempt;
    const Repeats& repeats = transfer.progress.repeats;
    if (attempt.postponed) {
        return Again::Ticket;
    }
    const bool lost = transfer.mayBeSentAgain() && endedWithoutAnswer(attempt, result) &&
                      connectionIsSuspect(attempt);
    if (repeats.lost == 0 && (attempt.use.refused || lost)) {
        return Again::Lost;
    }
    if (repeats.session == 0 && result == CURLE_SSL_CONNECT_ERROR && attempt.sendings == 0 &&
        attempt.offeredSession) {
        return Again::Session;
    }
    return repeats.refused < kRefusedPauses.size() && wasRefused(transfer, attempt, result)
               ? Again::Refused
               : Again::No;
}

milliseconds countRepeat(Transfer& transfer, Again reason)
{
    if (reason == Again::Lost) {
        ++transfer.progress.repeats.lost;
        __dlog_print(DLOG_INFO, kTag, "transfer %u begins again: its connection was lost",
                     transfer.progress.number);
    } else if (reason == Again::Session) {
        ++transfer.progress.repeats.session;
        __dlog_print(DLOG_INFO, kTag,
                     "transfer %u begins again: the server refused its TLS session",
                     transfer.progress.number);
    } else if (reason == Again::Ticket) {
        ++transfer.progress.repeats.postponed;
        __dlog_print(DLOG_INFO, kTag,
                     "transfer %u will begin again: its answer is large and others are under way",
                     transfer.progress.number);
    } else {
        const milliseconds pause = kRefusedPauses[transfer.progress.repeats.refused++];
        __dlog_print(DLOG_INFO, kTag,
                     "transfer %u begins again in %ld ms: the server refused the connection",
                     transfer.progress.number, static_cast<long>(pause.count()));
        return pause;
    }
    return milliseconds(0);
}

bool mayBeSentOnceMore(Transfer& transfer, bool ownConnection)
{
    if (!transfer.mayBeSentAgain() || transfer.progress.repeats.lost > 0 || !ownConnection) {
        return false;
    }
    countRepeat(transfer, Again::Lost);
    return true;
}

Conditions conditionsOf(const Transfer& transfer)
{
    const Repeats& repeats = transfer.progress.repeats;
    return {false, !transfer.mayBeSentAgain() || repeats.lost > 0 || repeats.postponed > 0,
            repeats.session == 0, timeLeft(transfer)};
}

milliseconds timeLeft(const Transfer& transfer)
{
    if (transfer.options.timeout == 0) {
        return milliseconds(0);
    }
    const auto spent = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() -
                                                                transfer.progress.started);
    return std::max<milliseconds>(std::chrono::seconds(transfer.options.timeout) - spent,
                                  milliseconds(1));
}

}  // namespace MZCurl
