// repeat.h - decides every repetition of a transfer: what is sent again, how often and why.
//
// | reason  | what has happened                                             | which requests | how often, and how           |
// |---------|---------------------------------------------------------------|----------------|------------------------------|
// | Lost    | a kept connection or an HTTP/2 stream ended before any byte    | GET            | once, over a new connection, |
// |         | of the body; or libcurl chose an HTTP/1.1 connection in use    |                | HTTP/1.1                     |
// | Session | the handshake failed after a TLS session was offered; no byte  | all            | once, over a new connection, |
// |         | of a request was sent                                          |                | without a session            |
// | Refused | the server's port refused the connection, or reset it before   | all            | after ¼, ½, 1 and 2 s        |
// |         | the request: the server restarts                               |                |                              |
// | Ticket  | the answer over HTTP/2 is large, others are under way, and    | GET            | once, over a new connection, |
// |         | none of its body was handed on                                |                | HTTP/1.1, with its ticket    |
//
// A POST or DELETE is sent at most once: it is repeated only where no byte of it was sent.
#pragma once

#include "rules.h"
#include "transfer.h"

#include <chrono>

namespace MZCurl {

enum class Again { No, Lost, Session, Refused, Ticket };

/// @param transfer its attempt has ended with its `result`, or it has none
/// @return why it is to be begun again; No when the transfer has ended
Again whyAgain(const Transfer& transfer);

/// Counts a repetition for this reason and logs it.
/// @return the pause before it
std::chrono::milliseconds countRepeat(Transfer& transfer, Again reason);

/// Called when libcurl is about to send the request of an attempt a second time, over another connection. Counts a
/// repetition that is allowed.
/// @param ownConnection  the other connection is new and speaks HTTP/1.1
/// @return whether it is allowed
bool mayBeSentOnceMore(Transfer& transfer, bool ownConnection);

/// @return what a transfer's next attempt has to keep to. `freshConnection` is up to the caller
Conditions conditionsOf(const Transfer& transfer);

/// @return time left for all attempts, at least 1 ms; 0 when there is no limit
std::chrono::milliseconds timeLeft(const Transfer& transfer);

}  // namespace MZCurl
