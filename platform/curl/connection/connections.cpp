// connections.cpp - watches kept connections while they are idle and while requests use them.
#include "connections.h"

#include "curl/transfer/tls.h"

#include <platform/network.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <new>

namespace MZCurl {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Idle connections are not used after this time: a middlebox may have forgotten them. Common servers close theirs after 5
// to 75 s. A new connection resumes the TLS session and costs no signature.
constexpr BootTime kLongestIdle = seconds(10);

// Connections used within this time are not polled: in a burst that would cost a system call for each request.
constexpr BootTime kJustUsed = milliseconds(50);

// A new request does not join a shared connection that owes an answer and was silent for this time.
constexpr BootTime kDoubtAfter = seconds(5);

// A kept connection that owes an answer and was silent for this time is closed. Together with the longest idle time this is
// how long requests may meet a connection that was lost silently: 25 s.
constexpr BootTime kLostAfter = seconds(15);

// The same for a connection that is older than a change of the network or a standby.
constexpr BootTime kDoubtfulLostAfter = seconds(5);

// Interval of the checks while requests wait.
constexpr BootTime kLookEvery = seconds(1);

// Shortest standby that counts: the two clocks are not read at the same moment.
constexpr BootTime kStandby = seconds(2);

BootTime read(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return std::chrono::duration_cast<BootTime>(seconds(now.tv_sec) +
                                                std::chrono::nanoseconds(now.tv_nsec));
}

BootTime bootTime()
{
    return read(CLOCK_BOOTTIME);
}

BootTime standbyTime()
{
    return read(CLOCK_BOOTTIME) - read(CLOCK_MONOTONIC);
}

/// @param text set to the address
/// @return port of an Internet address; 0 for any other
int portOf(const sockaddr_storage& address, std::string& text)
{
    char buffer[INET6_ADDRSTRLEN] = "";
    int port = 0;
    if (address.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
        inet_ntop(AF_INET, &v4.sin_addr, buffer, sizeof buffer);
        port = ntohs(v4.sin_port);
    } else if (address.ss_family == AF_INET6) {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
        inet_ntop(AF_INET6, &v6.sin6_addr, buffer, sizeof buffer);
        port = ntohs(v6.sin6_port);
    }
    text = buffer;
    return port;
}

/// Sets both ends of a connection, if its socket is connected.
void askEnds(Connection& connection)
{
    sockaddr_storage local{};
    sockaddr_storage remote{};
    socklen_t localSize = sizeof local;
    socklen_t remoteSize = sizeof remote;
    if (getsockname(connection.descriptor, reinterpret_cast<sockaddr*>(&local), &localSize) == 0 &&
        getpeername(connection.descriptor, reinterpret_cast<sockaddr*>(&remote), &remoteSize) ==
            0) {
        connection.localPort = portOf(local, connection.localAddress);
        connection.remotePort = portOf(remote, connection.remoteAddress);
    }
}

/// @return how long the connection has owed an answer without receiving a byte
BootTime silenceOf(const Connection& connection, BootTime now)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(connection.descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
        return BootTime(0);
    }
    return std::min(now - connection.since, BootTime(info.tcpi_last_data_recv));
}

/// Closes a connection at its socket. Reads what is left: libcurl takes a closed connection with unread bytes for a live
/// one.
void giveUp(Connection& connection)
{
    constexpr int kMostReads = 64;
    char rest[4096];
    endInOrder(connection.tls);
    shutdown(connection.descriptor, SHUT_RDWR);
    for (int i = 0; i < kMostReads; ++i) {
        if (recv(connection.descriptor, rest, sizeof rest, MSG_DONTWAIT) <= 0) {
            break;
        }
    }
    connection.given = true;
}

}  // namespace

Connections::Connections() : m_standby(standbyTime()) {}

bool Connections::opened(curl_socket_t descriptor, unsigned int opener)
{
    try {
        auto made = std::make_shared<Connection>();
        made->descriptor = descriptor;
        made->opener = opener;
        m_open.push_back(std::move(made));
        // Reserved here, so that retireIdle needs no memory.
        m_polled.reserve(m_open.size());
        m_idle.reserve(m_open.size());
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

int Connections::closed(void* pointer, curl_socket_t descriptor)
{
    Connections& self = *static_cast<Connections*>(pointer);
    self.m_open.remove_if([descriptor](const auto& c) { return c->descriptor == descriptor; });
    return ::close(descriptor);
}

void Connections::follow(CURL* curl)
{
    curl_easy_setopt(curl, CURLOPT_CLOSESOCKETFUNCTION, &Connections::closed);
    curl_easy_setopt(curl, CURLOPT_CLOSESOCKETDATA, this);
}

std::shared_ptr<Connection> Connections::find(const Ends& ends)
{
    for (const auto& connection : m_open) {
        if (connection->localPort == 0) {
            askEnds(*connection);
        }
        if (connection->localPort == ends.localPort && connection->remotePort == ends.remotePort &&
            connection->localAddress == ends.localAddress &&
            connection->remoteAddress == ends.remoteAddress) {
            return connection;
        }
    }
    return nullptr;
}

bool Connections::hasEnded(unsigned int transfer) const
{
    const auto isNew = [](const auto& connection) { return connection->requests == 0; };
    const auto isOwn = [&](const auto& connection) {
        return isNew(connection) && connection->opener == transfer;
    };
    const bool hasOwn = std::any_of(m_open.begin(), m_open.end(), isOwn);
    const auto isCandidate = [&](const auto& connection) {
        return hasOwn ? isOwn(connection) : isNew(connection);
    };
    const auto hasNoEnds = [](const auto& connection) {
        sockaddr_storage remote{};
        socklen_t size = sizeof remote;
        return getpeername(connection->descriptor, reinterpret_cast<sockaddr*>(&remote), &size) !=
                   0 &&
               errno == ENOTCONN;
    };
    return std::any_of(m_open.begin(), m_open.end(), isCandidate) &&
           std::all_of(m_open.begin(), m_open.end(), [&](const auto& connection) {
               return !isCandidate(connection) || hasNoEnds(connection);
           });
}

bool Connections::learn(Connection& connection, const Request& request)
{
    connection.tls = tlsOf(request.curl);
    connection.shared = speaksHttp2(connection.tls);
    try {
        connection.host = request.hostKey;
        if (connection.shared) {
            m_sharingHosts.insert(connection.host);
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

const char* Connections::begin(ConnectionUse& use, const Request& request, const Ends& ends)
{
    end(use);
    std::shared_ptr<Connection> connection = find(ends);
    if (connection == nullptr) {
        use.ended = !request.anonymous && hasEnded(request.transfer);
        // No request of an unknown connection is ever found, so that it is not taken for an idle one.
        return use.ended ? "The connection has ended" : nullptr;
    }
    if (connection->requests == 0 && !learn(*connection, request)) {
        return "There is no memory for a connection";
    }
    // libcurl's fault occurs only at hosts that speak HTTP/2. At any other host the earlier request has its answer already:
    // both events came in one round, and its end has not been collected yet.
    if (connection->users > 0 && !connection->shared &&
        m_sharingHosts.count(connection->host) != 0) {
        use.refused = true;
        return "Another request is under way on the connection";
    }
    if (connection->users++ == 0) {
        connection->since = bootTime();
    }
    ++connection->requests;
    connection->single = connection->single || !request.mayBeSentAgain;
    use.kept = connection->requests > 1;
    use.connection = std::move(connection);
    return nullptr;
}

void Connections::end(ConnectionUse& use)
{
    if (use.connection == nullptr) {
        return;
    }
    use.connection->paused = false;
    if (--use.connection->users == 0) {
        use.connection->since = bootTime();
    }
    use.connection.reset();
}

void Connections::pause(const ConnectionUse& use)
{
    if (use.connection != nullptr) {
        use.connection->paused = true;
    }
}

void Connections::resume(const ConnectionUse& use)
{
    if (use.connection != nullptr) {
        use.connection->paused = false;
        use.connection->since = bootTime();
    }
}

void Connections::lookAround()
{
    const BootTime standby = standbyTime();
    const bool slept = standby - m_standby >= kStandby;
    if (connection_profile_has_changed() || slept) {
        m_standby = standby;
        for (const auto& connection : m_open) {
            connection->doubtful = true;
        }
    }
}

void Connections::retireIdle()
{
    lookAround();
    const BootTime now = bootTime();
    m_polled.clear();
    m_idle.clear();
    for (const auto& connection : m_open) {
        const bool idle = connection->users == 0 && connection->requests > 0 && !connection->given;
        const BootTime age = now - connection->since;
        if (idle && (connection->doubtful || age > kLongestIdle)) {
            giveUp(*connection);
        } else if (idle && age > kJustUsed) {
            m_polled.push_back({connection->descriptor, POLLIN | POLLRDHUP, 0});
            m_idle.push_back(connection.get());
        }
    }
    if (m_polled.empty() || poll(m_polled.data(), m_polled.size(), 0) <= 0) {
        return;
    }
    for (std::size_t i = 0; i < m_polled.size(); ++i) {
        if (m_polled[i].revents != 0) {
            giveUp(*m_idle[i]);
        }
    }
}

void Connections::retireWaiting()
{
    const BootTime now = bootTime();
    if (now < m_nextLook) {
        return;
    }
    m_nextLook = now + kLookEvery;
    retireIdle();
    for (const auto& connection : m_open) {
        const bool candidate = connection->users > 0 && !connection->single && !connection->given &&
                               !connection->paused &&
                               (connection->requests > 1 || connection->doubtful);
        if (candidate && silenceOf(*connection, now) >=
                             (connection->doubtful ? kDoubtfulLostAfter : kLostAfter)) {
            giveUp(*connection);
        }
    }
}

bool Connections::isInDoubt(const std::string& host) const
{
    const BootTime now = bootTime();
    return std::any_of(m_open.begin(), m_open.end(), [&](const auto& connection) {
        return connection->shared && connection->users > 0 && connection->host == host &&
               (connection->doubtful || connection->given ||
                silenceOf(*connection, now) > kDoubtAfter);
    });
}

}  // namespace MZCurl
