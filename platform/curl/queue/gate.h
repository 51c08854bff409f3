// gate.h - the leader gate: of several transfers to a host without any transfer under way, one goes first. The others then
// find its TLS session, or its connection, instead of a handshake with the device's key for each.
#pragma once

#include "curl/transfer/transfer.h"

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <string>

namespace MZCurl {

/// A host with transfers under way or waiting, or remembered without one.
struct Host {
    std::size_t members = 0;  // let through or waiting, until they are taken out
    bool open = false;        // the leader has sent its request or ended: all may go
    std::chrono::steady_clock::time_point deadline;  // from then on all may go
    TransferList waiting;
};

/// Computes scheme, host and port of a URL; empty when it is not valid. The last one is cached: usually all
/// transfers go to the same host. Thread: one at a time.
class HostKey {
public:
    /// @return never null
    std::shared_ptr<const std::string> of(const std::string& url);

private:
    std::string m_start;  // the last URL, up to its path
    std::shared_ptr<const std::string> m_key;
};

/// Thread: the worker.
class Gate {
public:
    using Clock = std::chrono::steady_clock;

    /// Admits a transfer, or puts it among the waiting ones of its host.
    /// @return true when it may go
    bool enter(Transfer& transfer, Clock::time_point now);

    /// Records that a transfer's request is about to be sent, or that it has ended with any result: the others need not
    /// wait for it.
    static void open(const Transfer& transfer);

    /// Takes a transfer out. Precondition: its node is erased; `home` still names its list.
    void leave(Transfer& transfer);

    /// Moves the transfers that may go now to another list.
    void release(TransferList& to, Clock::time_point now);

    /// @return milliseconds until the first waiting transfer may go; `most` when that is longer or none waits
    int waitBound(Clock::time_point now, int most) const;

private:
    std::map<std::string, Host> m_hosts;
};

/// @return milliseconds until then, rounded up; 0 when it has passed. Rounded down, the wait would end early and many
///   short waits would follow
int millisecondsUntil(Gate::Clock::time_point then, Gate::Clock::time_point now);

}  // namespace MZCurl
