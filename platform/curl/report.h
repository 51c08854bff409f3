// report.h - the line of the log about a transfer that has ended.
#pragma once

#include "curl/transfer/transfer.h"

namespace MZCurl {

/// Logs one line with the transfer, libcurl's code, the HTTP status, the connection, and the time of each phase. Level:
/// warning when the HTTP status is 400 or more, info when the transfer failed otherwise, debug when it succeeded.
void report(const Transfer& transfer);

}  // namespace MZCurl
