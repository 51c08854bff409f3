// report.cpp - the line of the log about a transfer that has ended.
#include "report.h"

#include <platform/log.h>

namespace MZCurl {
namespace {

constexpr const char* kTag = "BILLING_PLATFORM";
constexpr long kFirstRefusal = 400;  // HTTP status

long number(const Transfer& transfer, CURLINFO info)
{
    long value = 0;
    if (transfer.attempt != nullptr) {
        curl_easy_getinfo(transfer.attempt->curl.get(), info, &value);
    }
    return value;
}

/// @return microseconds since the transfer's beginning; 0 for what did not happen
long microseconds(const Transfer& transfer, CURLINFO info)
{
    curl_off_t value = 0;
    if (transfer.attempt != nullptr) {
        curl_easy_getinfo(transfer.attempt->curl.get(), info, &value);
    }
    return static_cast<long>(value);
}

/// An HTTP error status is a success for libcurl, and only this line names it: so it is a warning.
log_priority priorityOf(CURLcode result, long status)
{
    if (status >= kFirstRefusal)
        return DLOG_WARN;
    return result == CURLE_OK ? DLOG_DEBUG : DLOG_INFO;
}

}  // namespace

void report(const Transfer& transfer)
{
    const long status = number(transfer, CURLINFO_RESPONSE_CODE);
    __dlog_print(
        priorityOf(transfer.progress.result, status), kTag,
        "transfer %u: %s, curl %d, HTTP %ld, new connections %ld, name %ld us, connect %ld us, "
        "TLS %ld us, first byte %ld us, whole %ld us, %ld bytes",
        transfer.progress.number, transfer.options.url.c_str(),
        static_cast<int>(transfer.progress.result), status, number(transfer, CURLINFO_NUM_CONNECTS),
        microseconds(transfer, CURLINFO_NAMELOOKUP_TIME_T),
        microseconds(transfer, CURLINFO_CONNECT_TIME_T),
        microseconds(transfer, CURLINFO_APPCONNECT_TIME_T),
        microseconds(transfer, CURLINFO_STARTTRANSFER_TIME_T),
        microseconds(transfer, CURLINFO_TOTAL_TIME_T),
        transfer.attempt != nullptr ? static_cast<long>(transfer.attempt->bodyBytes) : 0L);
}

}  // namespace MZCurl
