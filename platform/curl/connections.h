// connections.h - the connections that libcurl keeps: how long each is idle, and whether a new request may use it.
//
// libcurl checks a kept connection by peeking one byte. The server's close alert is a byte too, so a connection that the
// server has closed passes the check. An HTTP/2 connection that has gone silent stays in use for every new request. The
// wrapper therefore checks the connections itself and closes at the socket what must not be used: every version of libcurl
// then finds such a connection dead.
#pragma once

#include "transfer.h"

#include <curl/curl.h>
#include <poll.h>

#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace MZCurl {

/// A time on the clock that continues in standby.
using BootTime = std::chrono::milliseconds;

/// One TCP connection. libcurl owns its descriptor.
struct Connection {
    curl_socket_t descriptor = CURL_SOCKET_BAD;
    std::string localAddress;  // as libcurl reports it; empty until the socket is connected
    int localPort = 0;
    int remotePort = 0;
    void* tls = nullptr;       // OpenSSL's SSL, owned by libcurl; set at the first request
    std::string host;          // host key of its requests
    std::size_t requests = 0;  // requests sent over it so far
    std::size_t users = 0;     // requests that have not ended
    BootTime since{0};         // of the last change of `users` from or to 0
    bool shared = false;       // HTTP/2: several requests at a time
    bool single = false;       // has carried a request that must not be sent twice
    bool paused = false;       // no one reads from it: silence proves nothing
    bool doubtful = false;     // opened before a change of the network or a standby
    bool given = false;        // closed at the socket by the wrapper
};

/// Thread: the worker.
class Connections {
public:
    Connections();
    Connections(const Connections&) = delete;
    Connections& operator=(const Connections&) = delete;

    /// Makes libcurl report the sockets of a transfer. Called before each attempt. This object must outlive the multi
    /// handle.
    void follow(Transfer& transfer);

    /// Undoes `follow`. Precondition: the transfer was removed from the multi handle.
    static void unfollow(Transfer& transfer);

    /// Records that a request is about to be sent over the connection with these ends.
    /// @return false when it must not be sent, with the reason in the transfer's `refusal`: another request may be under way
    ///   on the connection, and HTTP/1.1 could not tell their answers apart
    bool begin(Transfer& transfer, const char* localAddress, int localPort, int remotePort);

    /// Records that the request of a transfer has ended, with any result.
    void end(Transfer& transfer);

    /// Records that the transfer's answer is not read, until `resume`: the connection's silence proves nothing.
    static void pause(Transfer& transfer);
    static void resume(Transfer& transfer);

    /// Closes the idle connections on which a new request could fail: those that are idle for too long, that have
    /// something to read, or that are older than a change of the network or a standby. Called before a request begins.
    void retireIdle();

    /// Called while requests wait, at least once a second. Does the same as retireIdle: a server that ends may take no new
    /// connection until the old ones are closed. Also closes kept and doubtful connections that owe an answer and were
    /// silent for too long, unless they carry a request that must not be sent twice.
    void retireWaiting();

    /// @return whether a shared connection to this host is in use that a new request must not join
    bool isInDoubt(const std::string& host) const;

private:
    static int opened(void* transfer, curl_socket_t descriptor, curlsocktype purpose);
    static int closed(void* connections, curl_socket_t descriptor);
    std::shared_ptr<Connection> find(const char* localAddress, int localPort, int remotePort);
    bool learn(Connection& connection, const Transfer& transfer);
    void lookAround();

    std::list<std::shared_ptr<Connection>> m_open;
    std::vector<pollfd> m_polled;  // reused for its memory
    std::vector<Connection*> m_idle;
    std::set<std::string> m_sharingHosts;  // host keys at which HTTP/2 was spoken
    bool m_blind = false;  // one was not found: idle ones are not checked until all are closed
    BootTime m_standby;    // time spent in standby since the boot
    BootTime m_nextLook{0};
};

}  // namespace MZCurl
