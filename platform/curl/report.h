// report.h - what the log says of a transfer when it has ended.
#pragma once

#include "transfer.h"

namespace MZCurl {

/// Logs one line: which transfer it was, libcurl's code, the HTTP status, the connection, and how long each part took.
/// At debug level when libcurl and the server both call it a success, at info level otherwise.
void report(const Transfer& transfer);

}  // namespace MZCurl
