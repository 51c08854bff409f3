// network_changes.cpp - finds changes of default routes, addresses and links in the kernel's reports.
#include "common/c_functions.h"
#include "common/descriptor.h"

#include <platform/network.h>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

namespace {

/// The netlink socket that receives the kernel's reports. Never closed.
int watch()
{
    const int made = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE |
                        RTMGRP_IPV6_ROUTE;
    Descriptor holder(made);
    if (made < 0 || bind(made, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        return -1;
    }
    return std::exchange(holder.fd, -1);
}

/// Tells a renewed IPv6 address from a new one: routers renew them every few minutes, and the kernel reports both alike.
bool isRenewal(const nlmsghdr* message)
{
    auto left = static_cast<unsigned>(IFA_PAYLOAD(message));
    for (auto* a = IFA_RTA(static_cast<ifaddrmsg*>(NLMSG_DATA(message))); RTA_OK(a, left);
         a = RTA_NEXT(a, left)) {
        if (a->rta_type == IFA_CACHEINFO && RTA_PAYLOAD(a) >= sizeof(ifa_cacheinfo)) {
            ifa_cacheinfo times{};
            std::memcpy(&times, RTA_DATA(a), sizeof times);
            return times.cstamp != times.tstamp;
        }
    }
    return false;
}

/// The kernel reports a link for many reasons; only up and down count. It does not report routes that a link takes away.
bool hasGoneOrCome(const ifinfomsg& link)
{
    static std::map<int, unsigned> known;
    const unsigned state = link.ifi_flags & (IFF_UP | IFF_RUNNING);
    const auto [entry, isNew] = known.try_emplace(link.ifi_index, state);
    return isNew || std::exchange(entry->second, state) != state;
}

bool isChange(nlmsghdr* message)
{
    switch (message->nlmsg_type) {
        case RTM_NEWLINK:
            return hasGoneOrCome(*static_cast<const ifinfomsg*>(NLMSG_DATA(message)));
        case RTM_NEWADDR:
            return !isRenewal(message);
        case RTM_DELLINK:
        case RTM_DELADDR:
            return true;
        case RTM_NEWROUTE:
        case RTM_DELROUTE:
            return static_cast<const rtmsg*>(NLMSG_DATA(message))->rtm_dst_len == 0;
        default:
            return false;
    }
}

/// Reads one report.
/// @return true for a change
bool tellsOfChange(char* data, std::size_t size)
{
    bool change = false;
    auto left = static_cast<unsigned>(size);
    for (auto* message = reinterpret_cast<nlmsghdr*>(data); NLMSG_OK(message, left);
         message = NLMSG_NEXT(message, left)) {
        change = isChange(message) || change;
    }
    return change;
}

/// Reads all waiting reports.
/// @return true when one of them is a change
bool readReports(int descriptor)
{
    bool change = false;
    alignas(nlmsghdr) char messages[8192];
    while (true) {
        const ssize_t size = recv(descriptor, messages, sizeof messages, 0);
        if (size > 0) {
            change = tellsOfChange(messages, static_cast<std::size_t>(size)) || change;
        } else if (size < 0 && errno == ENOBUFS) {
            change = true;  // the kernel has dropped reports
        } else if (size == 0 || errno != EINTR) {
            return change;
        }
    }
}

}  // namespace

bool connection_profile_has_changed(void)
{
    static const int descriptor = watch();
    return descriptor >= 0 && seam::guarded(true, [] { return readReports(descriptor); });
}
