// connections.h - the connections that libcurl keeps: how long each is idle, and whether a new request may use it.
//
// libcurl checks a kept connection by peeking one byte. The server's close alert is a byte too, so a connection that the
// server has closed passes the check. An HTTP/2 connection that has gone silent stays in use for every new request. The
// wrapper therefore checks the connections itself and closes at the socket what must not be used: every version of libcurl
// then finds such a connection dead.
#pragma once

#include "curl/transfer/connection.h"

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

/// What a connection has to know of a request.
struct Request {
    CURL* curl;
    unsigned int transfer;  // its number
    const std::string& hostKey;
    bool mayBeSentAgain;
    bool anonymous;  // a server that ends its new connection refuses the missing certificate
};

/// Thread: the worker.
class Connections {
public:
    Connections();
    Connections(const Connections&) = delete;
    Connections& operator=(const Connections&) = delete;

    /// Makes libcurl tell this object what it closes. This object must outlive the multi handle.
    void follow(CURL* curl);

    /// Records that libcurl has opened a socket for a transfer.
    /// @param opener number of the transfer
    /// @return false without memory
    bool opened(curl_socket_t descriptor, unsigned int opener);

    /// Records that a request is about to be sent over the connection with these ends.
    /// @param[out] use  the connection; none when it was not found
    /// @return null; or the reason, a literal, why it must not be sent: another request may be under way on the connection,
    ///   and HTTP/1.1 could not tell their answers apart; or the new connection has ended
    const char* begin(ConnectionUse& use, const Request& request, const Ends& ends);

    /// Records that the request has ended, with any result.
    static void end(ConnectionUse& use);

    /// Records that the answer is not read, until `resume`: the connection's silence proves nothing.
    static void pause(const ConnectionUse& use);
    static void resume(const ConnectionUse& use);

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
    static int closed(void* connections, curl_socket_t descriptor);
    std::shared_ptr<Connection> find(const Ends& ends);
    /// @param transfer number of a transfer whose connection was not found
    /// @return whether the connection has ended: its socket is one of those that carried no request yet, and none of these is
    ///   connected. Those that were opened for another transfer count only where none was opened for this one (HTTP/2).
    bool hasEnded(unsigned int transfer) const;
    bool learn(Connection& connection, const Request& request);
    void lookAround();

    std::list<std::shared_ptr<Connection>> m_open;
    std::vector<pollfd> m_polled;  // reused for its memory
    std::vector<Connection*> m_idle;
    std::set<std::string> m_sharingHosts;  // host keys at which HTTP/2 was spoken
    BootTime m_standby;                    // time spent in standby since the boot
    BootTime m_nextLook{0};
};

}  // namespace MZCurl
