// connections.h - the connections that libcurl keeps: since when each is idle, and whether a new request may go over it.
//
// libcurl asks a socket by a one-byte peek whether its connection lives. The server's close alert is a byte: a connection
// that the server has closed passes. An HTTP/2 connection on which nothing comes any more stays in use for every new
// request. So the wrapper looks itself, and closes at the socket what must not be used: every version of libcurl then
// finds the connection dead.
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

/// A point of time on the clock that runs on in standby.
using BootTime = std::chrono::milliseconds;

/// One TCP connection. libcurl owns its descriptor.
struct Connection {
    curl_socket_t descriptor = CURL_SOCKET_BAD;
    std::string localAddress;  // as libcurl tells it; empty until the socket has one
    int localPort = 0;
    int remotePort = 0;
    void* tls = nullptr;       // OpenSSL's SSL, owned by libcurl; known from the first request on
    std::string host;          // host key of its requests
    std::size_t requests = 0;  // sent over it so far
    std::size_t users = 0;     // requests that have not ended
    BootTime since{0};         // of the last change of `users` from or to 0
    bool shared = false;       // HTTP/2: several requests at a time
    bool single = false;       // it carries a request that must not be sent twice
    bool paused = false;       // nobody reads from it: its silence says nothing
    bool doubtful = false;     // the network has changed since it was opened
    bool given = false;        // closed at the socket by the wrapper: libcurl will find it dead
};

/// Thread: the worker.
class Connections {
public:
    Connections();
    Connections(const Connections&) = delete;
    Connections& operator=(const Connections&) = delete;

    /// Makes libcurl report the sockets of a transfer. To be called before each attempt. This object outlives the
    /// multi handle that the transfer is added to.
    void follow(Transfer& transfer);

    /// Undoes that, once the transfer is not on the multi handle any more.
    static void unfollow(Transfer& transfer);

    /// A request is about to be sent over the connection with these ends. @return false when it must not be: another
    /// request may be under way there, and HTTP/1.1 has no way to tell their answers apart. The refusal of the transfer says
    /// why
    bool begin(Transfer& transfer, const char* localAddress, int localPort, int remotePort);

    /// The request of a transfer has ended, in whatever way.
    void end(Transfer& transfer);

    /// Nobody reads the answer of a transfer from here on: its connection is silent for that. Until `resume`.
    static void pause(Transfer& transfer);
    static void resume(Transfer& transfer);

    /// Before a request begins: closes the idle connections that it could fail on. These are idle for too long, have
    /// something to read, or are from before a change of the network or a standby.
    void retireIdle();

    /// While requests wait, to be called once a second or more often: the same, since a server that ends may take no new
    /// connection until the old ones are closed; and closes the connections on which nothing has come for too long, of
    /// those whose requests may be sent again.
    void retireWaiting();

    /// @return whether a shared connection to this host is in use that a new request may not join
    bool isInDoubt(const std::string& host) const;

private:
    static int opened(void* transfer, curl_socket_t descriptor, curlsocktype purpose);
    static int closed(void* connections, curl_socket_t descriptor);
    std::shared_ptr<Connection> find(const char* localAddress, int localPort, int remotePort);
    bool learn(Connection& connection, const Transfer& transfer);
    void lookAround();

    std::list<std::shared_ptr<Connection>> m_open;
    std::vector<pollfd> m_polled;  // kept for its memory
    std::vector<Connection*> m_idle;
    std::set<std::string> m_sharingHosts;  // host keys that HTTP/2 was spoken with
    bool m_blind =
        false;  // a connection could not be found: none counts as idle until all are closed
    BootTime m_standby;  // spent in it since the start of the device
    BootTime m_nextLook{0};
};

}  // namespace MZCurl
