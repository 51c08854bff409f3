// quotas.h - how much of what transfers may take, with the reason for each number.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>

namespace MZCurl {

/// Transfers in a slot at most. Each has a descriptor, and 66 KiB with its call (125 that hang, measured): 17 MiB for all.
/// Whether more would make a load faster was not measured. A device lowers it with the build option `transfers`.
constexpr std::size_t kMostSlots = BILLING_TRANSFERS;

/// Descriptors that are not for transfers: 96 for the bus, the log, the token and files, 64 for kept connections and names.
/// Reckoned.
constexpr std::size_t kOtherDescriptors = 160;

/// A process that may open almost nothing still makes progress.
constexpr std::size_t kFewestSlots = 8;

/// A sender takes another slot while it has less than this many times the free ones: two thirds at most.
constexpr std::size_t kSenderShare = 2;

/// The same for a path, which many senders ask: four fifths at most.
constexpr std::size_t kPathShare = 4;

/// Transfers that look up a name at the same time, each in a thread of the resolver: 21 threads in all beside 500 calls to a
/// mute name server, measured. A quarter of the slots where they are few: the others are for hosts whose names are known.
constexpr std::size_t kMostResolving = std::min<std::size_t>(16, kMostSlots / 4);

/// A host whose name was known so long ago needs a thread again: libcurl remembers names for 60 s.
constexpr std::chrono::seconds kNameLife{60};

/// Transfers that are accepted at most, with the same shares: 10,000 outstanding calls of one app are answered. One that
/// waits takes 10 KiB with its call (3,000 of them, measured).
constexpr std::size_t kMostAccepted = 64 * kMostSlots;

/// A transfer that waited longer for its slot ends with nothing sent: D-Bus libraries give up after 25 s.
constexpr std::chrono::seconds kLongestTurn{20};

/// Senders, paths and lanes without a transfer that are remembered, so that an ordinary call allocates nothing for them.
/// Chosen as more than a TV has apps.
constexpr std::size_t kRemembered = 64;

// --- connections of one host ---

/// GETs under way to one host while its answers come back quickly. Each takes a connection over HTTP/1.1.
constexpr std::size_t kNarrow = 16;

/// An answer that took longer says nothing of the connections: they would not be free soon. 16 GETs at a time are then 800 a
/// second at least; over a line of 64 ms they would be 250.
constexpr std::chrono::milliseconds kQuick{20};

/// Nothing has come back quickly from a host for so long: as many GETs again may go. A connection that is about to be free is waited
/// for that long.
constexpr std::chrono::milliseconds kPatience{5};

/// After so long half of that is taken back. A store that is slow for good costs one wait of kPatience in that time.
constexpr std::chrono::seconds kWideFor{1};

// --- answers ---

/// Bytes. An answer up to here needs no ticket. Confirmations, invoices and short lists are below it; all slots together hold
/// 16 MiB of such answers.
constexpr std::size_t kSmallAnswer = std::size_t{64} * 1024;

/// Bytes. An answer up to here needs one of the tickets for large ones, a longer one the ticket for huge ones.
constexpr std::size_t kLargeAnswer = std::size_t{4} * 1024 * 1024;

/// Large answers in memory at a time, from their 64th KiB to the bus: 32 MiB with the copy that the bus library makes.
constexpr std::size_t kLargeTickets = 4;

/// The same for huge ones: 64 MiB with that copy. 20 of 32 MiB cost 811 MiB without tickets.
constexpr std::size_t kHugeTickets = 1;

/// While others wait for its ticket, an answer of which nothing comes for so long is given up. A packet that is lost four
/// times on a line with 50 ms of delay comes after 4 s (reckoned: the kernel doubles a pause of 0.25 s).
constexpr std::chrono::seconds kSilentTurn{5};

/// While others wait for its ticket, an answer is given up after so long: D-Bus libraries give up after 25 s.
constexpr std::chrono::seconds kLongestAnswer{20};

/// Pause between two looks whether a body has left memory, while an answer waits for that.
constexpr std::chrono::milliseconds kInHandLook{10};

}  // namespace MZCurl
