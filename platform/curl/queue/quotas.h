// quotas.h - the limits of what transfers may use, each with its reason.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>

namespace MZCurl {

/// Transfers in a slot at a time. Each has a descriptor, and 71 KiB with its call (170 stalled ones, measured): 18 MiB for
/// all. Whether more would make a load faster was not measured. The build option `transfers` sets it.
constexpr std::size_t kMostSlots = BILLING_TRANSFERS;

/// Descriptors for everything but transfers: 96 for bus, log, token and files, 64 for kept connections and names. Reckoned.
constexpr std::size_t kOtherDescriptors = 160;

/// Fewest slots: a process with very few descriptors still makes progress.
constexpr std::size_t kFewestSlots = 8;

/// A sender gets another slot while it has fewer than this times the free ones: two thirds of all at most.
constexpr std::size_t kSenderShare = 2;

/// The same for a path, which many senders share: four fifths of all at most.
constexpr std::size_t kPathShare = 4;

/// Transfers that resolve a name at a time, each with a resolver thread: 21 threads in all with 500 calls and a mute name
/// server, measured. At most a quarter of the slots: the others are for hosts whose names are known.
constexpr std::size_t kMostResolving = std::min<std::size_t>(16, kMostSlots / 4);

/// Age from which a resolved name needs a resolver thread again: libcurl caches names for 60 s.
constexpr std::chrono::seconds kNameLife{60};

/// Transfers that are accepted at a time, with the same shares: 10,000 open calls of one app are answered. A waiting one
/// takes 4 KiB with its call (830 of them, measured).
constexpr std::size_t kMostAccepted = 64 * kMostSlots;

/// Longest wait for a slot. The transfer then ends and nothing was sent: D-Bus libraries give up after 25 s.
constexpr std::chrono::seconds kLongestTurn{20};

/// Senders, paths, lanes and hosts that are remembered without a transfer, so that an ordinary call allocates none. The number is
/// above the number of apps on a TV.
constexpr std::size_t kRemembered = 64;

// --- connections of one host ---

/// GETs under way to one host while its answers come quickly. Over HTTP/1.1 each takes a connection.
constexpr std::size_t kNarrow = 16;

/// GETs of one sender to one path whose request is not sent yet. While a store takes connections and makes no handshake, each
/// holds 71 KiB, and a waiting GET 4 KiB. GETs of others, and requests that were sent, do not count.
constexpr std::size_t kMostOpening = std::max(kNarrow, kMostSlots / 4);

/// An answer within this time is quick: its connection is free again soon. 16 GETs at a time are then at least 800 a second;
/// over a line with 64 ms of delay they would be 250.
constexpr std::chrono::milliseconds kQuick{20};

/// Time without a quick answer from a host, after which twice as many GETs may go. A request waits this long for a
/// connection that may become free.
constexpr std::chrono::milliseconds kPatience{5};

/// Time after which the limit is halved again. A slow store costs one wait of kPatience in that time.
constexpr std::chrono::seconds kWideFor{1};

// --- answers ---

/// Bytes. An answer up to this size needs no ticket: confirmations, invoices and short lists. All slots together hold 16 MiB
/// of such answers.
constexpr std::size_t kSmallAnswer = std::size_t{64} * 1024;

/// Bytes. An answer up to this size needs a ticket for large answers, a longer one the ticket for huge ones.
constexpr std::size_t kLargeAnswer = std::size_t{4} * 1024 * 1024;

/// Large answers in memory at a time, from their 64th KiB until they are on the bus: 32 MiB with the bus library's copy.
constexpr std::size_t kLargeTickets = 4;

/// The same for huge answers: 64 MiB with that copy. Without tickets 20 answers of 32 MiB took 811 MiB.
constexpr std::size_t kHugeTickets = 1;

/// Silence after which an answer is ended while others wait for its ticket. A packet that is lost four times on a line with
/// 50 ms of delay arrives after 4 s (reckoned: the kernel doubles a pause of 0.25 s).
constexpr std::chrono::seconds kSilentTurn{5};

/// Time after which an answer is ended while others wait for its ticket: D-Bus libraries give up after 25 s.
constexpr std::chrono::seconds kLongestAnswer{20};

/// Interval of checks whether a body has left memory, while an answer waits for that.
constexpr std::chrono::milliseconds kInHandLook{10};

}  // namespace MZCurl
