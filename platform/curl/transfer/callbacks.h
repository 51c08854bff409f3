// callbacks.h - the functions that libcurl calls during a transfer. Their last argument is the Attempt.
#pragma once

#include <curl/curl.h>

#include <cstddef>

namespace MZCurl {

/// Bytes of the longest text that a reply on the system bus can carry; a longer body could not be delivered.
constexpr std::size_t kMaxBodyBytes = 33554375;

/// Bytes of all header lines of one transfer, those of interim responses and trailers included.
constexpr std::size_t kMaxHeaderBytes = std::size_t{300} * 1024;

struct Attempt;

/// Hands a piece of the body to the transfer's write callback, or makes the transfer wait for a ticket.
std::size_t onBody(char* data, std::size_t size, std::size_t count, void* attempt);

/// At the transfer's end: hands the kept beginning of the body to the transfer's write callback.
/// @return false when the callback refused it
bool deliverEarly(Attempt& attempt);

/// Counts the bytes of a header line.
std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* attempt);

/// Called when a socket was opened.
int onSocket(void* attempt, curl_socket_t descriptor, curlsocktype purpose);

/// Called when the connection is ready and the request is about to be sent; called again when libcurl
/// repeats the request because a kept connection was lost.
int onRequest(void* attempt, char* remoteAddress, char* localAddress, int remotePort,
              int localPort);

}  // namespace MZCurl
