// repeat.cpp - decides which transfers are begun again.
#include "repeat.h"

#include "connections.h"

#include <platform/log.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace MZCurl {
namespace {

using std::chrono::milliseconds;

constexpr const char* kTag = "BILLING_PLATFORM";

// A restarting server refuses connections for some milliseconds (nginx) to a second (Apache), longer under load.
constexpr std::array kRefusedPauses{milliseconds(250), milliseconds(500), milliseconds(1000),
                                    milliseconds(2000)};

// Least time left for another attempt: with less a handshake is not worth its cost.
constexpr milliseconds kLeastTime{1000};

bool hasTime(const Transfer& transfer)
{
    return transfer.timeout.count() == 0 || timeLeft(transfer) >= kLeastTime;
}

/// @return whether the connection, or the HTTP/2 stream, ended after the request was sent and before any byte of the body
bool endedWithoutAnswer(const Transfer& transfer)
{
    if (transfer.bodyBytes > 0 || transfer.sendings == 0) {
        return false;
    }
    switch (transfer.result) {
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
            return true;
        case CURLE_ABORTED_BY_CALLBACK:  // a callback has stopped libcurl's own repetition
            return transfer.sendings > 1;
        default:
            return false;
    }
}

/// @return whether the connection may have caused the end. A server that ends the first request of a connection of its own
///   does so on purpose.
bool connectionIsSuspect(const Transfer& transfer)
{
    return transfer.keptConnection || transfer.sendings > 1 ||
           (transfer.connection != nullptr &&
            (transfer.connection->shared || transfer.connection->given));
}

bool wasRefused(const Transfer& transfer)
{
    long error = 0;
    curl_easy_getinfo(transfer.curl.get(), CURLINFO_OS_ERRNO, &error);
    return transfer.result == CURLE_COULDNT_CONNECT && error == ECONNREFUSED;
}

}  // namespace

Again whyAgain(const Transfer& transfer)
{
    const Repeats& repeats = transfer.repeats;
    if (transfer.result == CURLE_OK || !transfer.attached || !hasTime(transfer)) {
        return Again::No;
    }
    if (transfer.postponed) {
        return Again::Ticket;
    }
    const bool lost =
        transfer.mayBeSentAgain() && endedWithoutAnswer(transfer) && connectionIsSuspect(transfer);
    if (repeats.lost == 0 && (transfer.crowded || lost)) {
        return Again::Lost;
    }
    if (repeats.session == 0 && transfer.result == CURLE_SSL_CONNECT_ERROR &&
        transfer.sendings == 0 && transfer.offeredSession) {
        return Again::Session;
    }
    return repeats.refused < kRefusedPauses.size() && wasRefused(transfer) ? Again::Refused
                                                                           : Again::No;
}

milliseconds countRepeat(Transfer& transfer, Again reason)
{
    if (reason == Again::Lost) {
        ++transfer.repeats.lost;
        __dlog_print(DLOG_INFO, kTag, "transfer %u begins again: its connection was lost",
                     transfer.number);
    } else if (reason == Again::Session) {
        ++transfer.repeats.session;
        __dlog_print(DLOG_INFO, kTag,
                     "transfer %u begins again: the server refused its TLS session",
                     transfer.number);
    } else if (reason == Again::Ticket) {
        ++transfer.repeats.postponed;
        __dlog_print(DLOG_INFO, kTag,
                     "transfer %u will begin again: its answer is large and others are under way",
                     transfer.number);
    } else {
        const milliseconds pause = kRefusedPauses[transfer.repeats.refused++];
        __dlog_print(DLOG_INFO, kTag,
                     "transfer %u begins again in %ld ms: the server refused the connection",
                     transfer.number, static_cast<long>(pause.count()));
        return pause;
    }
    return milliseconds(0);
}

bool mayBeSentOnceMore(Transfer& transfer)
{
    const bool newHttp11 = transfer.connections == nullptr ||
                           (!transfer.keptConnection && transfer.connection != nullptr &&
                            !transfer.connection->shared);
    if (!transfer.mayBeSentAgain() || transfer.repeats.lost > 0 || !newHttp11) {
        return false;
    }
    countRepeat(transfer, Again::Lost);
    return true;
}

milliseconds timeLeft(const Transfer& transfer)
{
    if (transfer.timeout.count() == 0) {
        return milliseconds(0);
    }
    const auto spent = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() -
                                                                transfer.started);
    return std::max(transfer.timeout - spent, milliseconds(1));
}

}  // namespace MZCurl
