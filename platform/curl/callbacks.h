// callbacks.h - what libcurl calls during a transfer. The last argument is the Transfer.
#pragma once

#include <cstddef>

namespace MZCurl {

/// The largest text that the system bus can carry in an answer of ours. A longer body could not be
/// handed on.
constexpr std::size_t kMaxBodyBytes = 33554375;

/// Header lines of one transfer: interim responses and trailers count.
constexpr std::size_t kMaxHeaderBytes = std::size_t{300} * 1024;

/// Hands a piece of the body to the transfer's own callback.
std::size_t onBody(char* data, std::size_t size, std::size_t count, void* transfer);

/// Counts a header line.
std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* transfer);

/// Runs when the connection stands and the request is about to be sent: the first time, and again
/// when libcurl is about to repeat it because a kept connection died.
int onRequest(void* transfer, char* remoteAddress, char* localAddress, int remotePort,
              int localPort);

}  // namespace MZCurl
