// admission.h - whose turn it is: transfers wait in lanes, and no sender, path or name server takes all of the slots.
//
// A transfer in a slot has a connection, memory for it, and perhaps a thread that looks up a name. One that waits has none
// of them. A lane holds the waiting transfers of one sender to one path; lanes are served in turn.
#pragma once

#include "transfer.h"
#include "width.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <utility>

namespace MZCurl {

/// What one sender, one path or one host has.
struct Share {
    std::size_t members = 0;   // transfers that were accepted and not yet taken out
    std::size_t slots = 0;     // those in a slot; not counted for a host, which has its width
    std::uint64_t served = 0;  // of a sender: number of its last ticket for a large answer
    std::chrono::steady_clock::time_point named{};  // when the name of a host was known last
    Width width;                                    // of a host
};

/// The transfers of one sender to one path.
struct Lane {
    Share* sender = nullptr;
    Share* path = nullptr;
    Share* host = nullptr;
    std::size_t members = 0;
    TransferList waiting;
    std::list<Lane*> turn;  // its place among the lanes, while nobody waits in it
};

/// Members named "any thread" are called with the multi handle's lock held; the others belong to the worker.
class Admission {
public:
    using Clock = std::chrono::steady_clock;

    Admission();
    Admission(const Admission&) = delete;
    Admission& operator=(const Admission&) = delete;

    /// Any thread: makes a place for a transfer. @return false when there are too many, for its sender or its path
    /// @throw std::bad_alloc, nothing being changed
    bool join(Transfer& transfer, const std::string& sender);

    /// Gives up the place of a transfer, whose node is in no list any more. Called with the lock held.
    void leave(Transfer& transfer);

    /// Puts a transfer at the end of its lane.
    void enqueue(Transfer& transfer, Clock::time_point now);

    /// Gives a slot to the transfer whose turn it is, and moves it to a list. @return null when none may have one now
    Transfer* next(Clock::time_point now, TransferList& to);

    /// Moves a transfer that has waited for too long to a list. @return null when there is none
    Transfer* overdue(Clock::time_point now, TransferList& to);

    /// The transfer gets on: the name of its server is known.
    void resolved(Transfer& transfer);

    /// The transfer needs its slot no more.
    void release(Transfer& transfer);

    /// Moves all that wait to another list.
    void drain(TransferList& to);

    bool isWaiting() const { return !m_turns.empty(); }

    /// @return whether `next` would give a slot
    bool mayGive(Clock::time_point now) const { return turn(now) != m_turns.end(); }

    /// Lets more requests go at the same time to hosts from which nothing comes back.
    void widen(Clock::time_point now);

    /// @return how long until `widen` may have something to do, in milliseconds; `most` when that is longer
    int waitBound(Clock::time_point now, int most) const;

private:
    using Shares = std::map<std::string, Share, std::less<>>;

    std::size_t freeSlots() const { return m_slots - m_taken; }
    bool hasSlotFor(const Lane& lane, Clock::time_point now) const;
    static bool hasRoomAtHost(const Lane& lane, Clock::time_point now);
    /// @return whether the first of a lane has everything but room at its host
    bool waitsForHost(const Lane& lane, Clock::time_point now) const;
    std::list<Lane*>::const_iterator turn(Clock::time_point now) const;
    void unlistIfEmpty(Lane& lane);
    void stopResolving(Transfer& transfer);
    void forgetUnused();

    const std::size_t m_slots;
    std::size_t m_members = 0;  // any thread
    Shares m_senders;           // any thread, but for `slots`
    Shares m_paths;
    Shares m_hosts;
    // any thread, but for `slots`
    std::map<std::pair<Share*, Share*>, Lane> m_lanes;  // any thread, but for what waits in them
    std::list<Lane*> m_turns;  // lanes in which somebody waits; the front one is next
    std::size_t m_taken = 0;
    std::size_t m_resolving = 0;
};

}  // namespace MZCurl
