// callbacks.h - what libcurl calls during a transfer. The last argument is the Transfer.
#pragma once

#include <cstddef>

namespace MZCurl {

/// The largest text that the system bus can carry in an answer of ours. A longer body could not be
/// handed on.
constexpr std::size_t kMaxBodyBytes = 33554375;

/// Header lines of one transfer: interim responses and trailers count.
constexpr std::size_t kMaxHeaderBytes = std::size_t{300} * 1024;

struct Transfer;

/// Hands a piece of the body to the transfer's own callback, or has the transfer wait for a ticket.
std::size_t onBody(char* data, std::size_t size, std::size_t count, void* transfer);

/// Hands the beginning of the body that was kept to the transfer's own callback, at the transfer's end.
/// @return false when it did not take it
bool deliverEarly(Transfer& transfer);

/// Counts a header line.
std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* transfer);

/// Runs when the connection stands and the request is about to be sent: the first time, and again
/// when libcurl is about to repeat it because a kept connection died.
int onRequest(void* transfer, char* remoteAddress, char* localAddress, int remotePort,
              int localPort);

}  // namespace MZCurl
