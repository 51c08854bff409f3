// gate.h - the leader gate: when many transfers go to a host that nobody is talking to, one goes
// first, so that the others find its TLS session, or its connection, instead of each making a
// handshake with the device's key.
#pragma once

#include "transfer.h"

#include <chrono>
#include <cstddef>
#include <map>
#include <string>

namespace MZCurl {

/// A host that transfers are under way to, or waiting for.
struct Host {
    std::size_t members = 0;  // transfers let through or waiting, until they are removed
    bool open = false;        // the leader has done its part: nobody waits any more
    std::chrono::steady_clock::time_point deadline;  // nobody waits longer for it
    TransferList waiting;
};

/// Scheme, host and port of a URL; empty when it is none. Remembers the last one: as a rule all go
/// to the same host. Thread: one at a time.
class HostKey {
public:
    const std::string& of(const std::string& url);

private:
    std::string m_start;  // of the last URL, up to its path
    std::string m_key;
};

/// Thread: the worker.
class Gate {
public:
    using Clock = std::chrono::steady_clock;

    /// A transfer arrives. @return true when it may go; false when it was put among those that wait
    bool enter(Transfer& transfer, Clock::time_point now);

    /// A transfer has ended, with or without success: it holds nobody up.
    static void finished(Transfer& transfer);

    /// A transfer has been taken out, in whatever state: its node is gone from its home list, and
    /// home still says which one that was.
    void leave(Transfer& transfer);

    /// Moves those that need not wait any more to another list.
    void release(TransferList& to, Clock::time_point now);

    /// @return how long the first of those that wait may still have to, in milliseconds; `most`
    ///   when nobody waits so long
    int waitBound(Clock::time_point now, int most) const;

private:
    std::map<std::string, Host> m_hosts;
};

/// @return milliseconds until then, rounded up: a wait that ends a moment too early would be followed by many short
///   ones; 0 when it has passed
int millisecondsUntil(Gate::Clock::time_point then, Gate::Clock::time_point now);

}  // namespace MZCurl
