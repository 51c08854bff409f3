// admission.h - the order of transfers: they wait in lanes, and no sender, path or name server takes all of the slots.
//
// A transfer in a slot has a connection, memory for it, and sometimes a thread that resolves a name. A waiting one has none
// of these. A lane holds the waiting transfers of one sender to one path; the lanes take turns.
#pragma once

#include "curl/transfer/transfer.h"
#include "width.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <utility>

namespace MZCurl {

/// What one sender, one path or one host uses.
struct Share {
    std::size_t members = 0;   // transfers accepted and not yet taken out
    std::size_t slots = 0;     // of these, in a slot; not counted for hosts, which have a width
    std::uint64_t served = 0;  // senders: number of the last ticket for a large answer
    std::chrono::steady_clock::time_point named{};  // hosts: last time that the name was resolved
    Width width;                                    // hosts
};

/// The transfers of one sender to one path.
struct Lane {
    Share* sender = nullptr;
    Share* path = nullptr;
    Share* host = nullptr;
    std::size_t members = 0;
    std::size_t opening = 0;  // GETs in a slot whose request is not sent yet
    TransferList waiting;
    std::list<Lane*> turn;  // holds the lane's node of m_turns while no transfer waits in it
};

/// Thread: "any" marks what needs the multi handle's lock and runs on any thread; the rest is the worker's.
class Admission {
public:
    using Clock = std::chrono::steady_clock;

    Admission();
    Admission(const Admission&) = delete;
    Admission& operator=(const Admission&) = delete;

    /// Accepts a transfer. Thread: any, with the lock held.
    /// @return false when too many transfers of its sender or to its path are accepted already
    /// @throw std::bad_alloc; nothing has changed then
    bool join(Transfer& transfer, const std::string& sender);

    /// Takes a transfer out. Precondition: its node is in no list. Thread: the worker, with the lock held.
    void leave(Transfer& transfer);

    /// Puts a transfer at the end of its lane.
    void enqueue(Transfer& transfer, Clock::time_point now);

    /// Gives a slot to the next transfer and moves it to a list.
    /// @return null when no waiting transfer may have a slot now
    Transfer* next(Clock::time_point now, TransferList& to);

    /// Moves a transfer that has waited for kLongestTurn to a list.
    /// @return null when there is none
    Transfer* overdue(Clock::time_point now, TransferList& to);

    /// Records that the name of the transfer's server is resolved.
    void resolved(Transfer& transfer);

    /// Records that the transfer's request is about to be sent.
    void sending(Transfer& transfer);

    /// Takes back the transfer's slot, if it has one.
    /// @param sent  when its request was sent; the clock's epoch when it was not
    void release(Transfer& transfer, Clock::time_point sent);

    /// Moves all waiting transfers to another list.
    void drain(TransferList& to);

    bool isWaiting() const { return !m_turns.empty(); }

    /// @return whether `next` would give a slot
    bool mayGive(Clock::time_point now) const { return turn(now) != m_turns.end(); }

    /// Raises the limit of simultaneous GETs to hosts from which no answer comes quickly.
    void widen(Clock::time_point now);

    /// @return milliseconds until `widen` may have to raise a limit; `most` when that is longer
    int waitBound(Clock::time_point now, int most) const;

private:
    using Shares = std::map<std::string, Share, std::less<>>;

    std::size_t freeSlots() const { return m_slots - m_taken; }
    bool hasSlotFor(const Lane& lane, Clock::time_point now) const;
    static bool mayOpenConnection(const Lane& lane);
    static bool hasRoomAtHost(const Lane& lane, Clock::time_point now);
    /// @return whether a lane's first transfer lacks nothing but room at its host
    bool waitsForHost(const Lane& lane, Clock::time_point now) const;
    std::list<Lane*>::const_iterator turn(Clock::time_point now) const;
    void unlistIfEmpty(Lane& lane);
    void stopResolving(Transfer& transfer);
    static void stopOpening(Transfer& transfer);
    void forgetUnused();

    const std::size_t m_slots;
    std::size_t m_members = 0;  // thread: any
    Shares m_senders;           // thread: any, except `slots`
    Shares m_paths;
    Shares m_hosts;
    // thread: any, except `slots`
    std::map<std::pair<Share*, Share*>, Lane> m_lanes;  // thread: any, except `waiting` and `turn`
    std::list<Lane*> m_turns;  // lanes with waiting transfers; the front one is next
    std::size_t m_taken = 0;
    std::size_t m_resolving = 0;
};

}  // namespace MZCurl
