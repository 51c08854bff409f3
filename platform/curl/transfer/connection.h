// connection.h - what is known of one TCP connection, and what a request notes of the connection that it uses.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace MZCurl {

/// A time on the clock that continues in standby.
using BootTime = std::chrono::milliseconds;

/// One TCP connection. libcurl owns its descriptor. Writer: Connections.
struct Connection {
    curl_socket_t descriptor = CURL_SOCKET_BAD;
    unsigned int opener = 0;   // number of the transfer that it was opened for
    std::string localAddress;  // as libcurl reports it; empty until the socket is connected
    std::string remoteAddress;
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

/// The ends of a connection, as libcurl tells them.
struct Ends {
    std::string_view localAddress;  // empty when it is not known
    std::string_view remoteAddress;
    int localPort;
    int remotePort;
};

/// The connection of one attempt. Writer: Connections.
struct ConnectionUse {
    std::shared_ptr<Connection> connection;  // while its request is under way
    bool kept = false;                       // another request went over the connection before
    bool refused = false;  // libcurl chose a connection that is in use: nothing was sent over it
    bool ended = false;    // the new connection had ended: nothing was sent over it

    bool isShared() const { return connection != nullptr && connection->shared; }
};

}  // namespace MZCurl
