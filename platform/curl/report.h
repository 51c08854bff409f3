// report.h - what the log says of a transfer when it has ended.
#pragma once

#include "transfer.h"

namespace MZCurl {

/// Logs one line: which transfer it was, libcurl's code, the HTTP status, the connection, and how long each part took.
/// At warning level when the HTTP status is 400 or more, at info level when the transfer failed otherwise, at debug
/// level when it is a success.
void report(const Transfer& transfer);

}  // namespace MZCurl
