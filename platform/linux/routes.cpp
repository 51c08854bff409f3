// routes.cpp - one dump of the kernel's routing tables over rtnetlink.
#include "routes.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace routes {

namespace {

/// Largest part of a dump that the kernel sends at a time.
constexpr std::size_t kBufferSize = std::size_t{32} * 1024;
/// Attempts at a dump when the tables change meanwhile.
constexpr int kTries = 4;

class Socket {
public:
    Socket() : m_fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {}
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    int fd() const { return m_fd; }

private:
    int m_fd;
};

struct Dump {
    bool found = false;
    bool done = false;
    bool overtaken = false;
    int error = 0;
};

bool leadsOut(unsigned flags, int device)
{
    return (flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) == 0 &&
           device != static_cast<int>(if_nametoindex("lo"));
}

template <typename Value>
Value valueOf(const rtattr* attribute)
{
    Value value{};
    memcpy(&value, RTA_DATA(attribute), sizeof value);
    return value;
}

/// True if one next hop of a multipath route leads out.
bool anyHopLeadsOut(const rtattr* attribute)
{
    auto* hop = static_cast<const rtnexthop*>(RTA_DATA(attribute));
    std::size_t left = RTA_PAYLOAD(attribute);
    while (left >= sizeof *hop && hop->rtnh_len >= sizeof *hop && hop->rtnh_len <= left) {
        if (leadsOut(hop->rtnh_flags, hop->rtnh_ifindex))
            return true;
        const std::size_t step = RTNH_ALIGN(hop->rtnh_len);
        if (step >= left)
            break;
        left -= step;
        hop = reinterpret_cast<const rtnexthop*>(reinterpret_cast<const char*>(hop) + step);
    }
    return false;
}

bool isWayOut(const nlmsghdr* message)
{
    if (message->nlmsg_type != RTM_NEWROUTE || message->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg)))
        return false;
    auto* const route = static_cast<const rtmsg*>(NLMSG_DATA(message));
    const bool internet = route->rtm_family == AF_INET || route->rtm_family == AF_INET6;
    if (!internet || route->rtm_dst_len != 0 || route->rtm_type != RTN_UNICAST)
        return false;

    unsigned table = route->rtm_table;
    // A route over a next-hop object may name no device of its own.
    bool out = leadsOut(route->rtm_flags, 0);
    auto left = static_cast<unsigned>(RTM_PAYLOAD(message));
    for (auto* a = RTM_RTA(route); RTA_OK(a, left); a = RTA_NEXT(a, left)) {
        if (a->rta_type == RTA_TABLE)
            table = valueOf<unsigned>(a);
        else if (a->rta_type == RTA_OIF)
            out = leadsOut(route->rtm_flags, valueOf<int>(a));
        else if (a->rta_type == RTA_MULTIPATH)
            out = anyHopLeadsOut(a);
    }
    return table == RT_TABLE_MAIN && out;
}

void read(const char* data, std::size_t size, Dump& dump)
{
    auto left = static_cast<unsigned>(size);
    for (auto* message = reinterpret_cast<const nlmsghdr*>(data); NLMSG_OK(message, left);
         message = NLMSG_NEXT(message, left)) {
        if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0)
            dump.overtaken = true;
        if (message->nlmsg_type == NLMSG_ERROR) {
            const auto* const reply = static_cast<const nlmsgerr*>(NLMSG_DATA(message));
            dump.error = reply->error != 0 ? -reply->error : EPROTO;
        }
        if (message->nlmsg_type == NLMSG_DONE)
            dump.done = true;
        if (isWayOut(message))
            dump.found = true;
    }
}

int ask(int fd)
{
    // The kernel answers at once. The limit guards the caller against one that does not.
    const timeval limit{2, 0};
    if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0)
        return errno;
    struct {
        nlmsghdr header;
        rtmsg route;
    } request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof request.route);
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.route.rtm_family = AF_UNSPEC;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    const ssize_t sent = sendto(fd, &request, request.header.nlmsg_len, 0,
                                reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
    return sent < 0 ? errno : 0;
}

Dump dumpRoutes()
{
    Dump dump;
    const Socket socket;
    dump.error = socket.fd() < 0 ? errno : ask(socket.fd());
    alignas(nlmsghdr) char buffer[kBufferSize];
    while (dump.error == 0 && !dump.done) {
        sockaddr_nl sender{};
        iovec part{buffer, sizeof buffer};
        msghdr message{};
        message.msg_name = &sender;
        message.msg_namelen = sizeof sender;
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        const ssize_t size = recvmsg(socket.fd(), &message, 0);
        if (size < 0) {
            if (errno != EINTR)
                dump.error = errno == EAGAIN ? ETIMEDOUT : errno;
        } else if ((message.msg_flags & MSG_TRUNC) != 0) {
            dump.error = EMSGSIZE;
        } else if (sender.nl_pid == 0) {  // from the kernel, not from another process
            read(buffer, static_cast<std::size_t>(size), dump);
        }
    }
    return dump;
}

}  // namespace

int defaultRouteExists(bool* exists)
{
    Dump dump;
    for (int i = 0; i < kTries; i++) {
        dump = dumpRoutes();
        if (dump.error != 0)
            return dump.error;
        // A route that was found did exist; only "none found" may be due to a change meanwhile.
        if (dump.found || !dump.overtaken)
            break;
    }
    *exists = dump.found;
    return 0;
}

}  // namespace routes
