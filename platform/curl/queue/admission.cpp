// admission.cpp - gives slots to waiting transfers, and ends transfers that waited too long for one.
#include "admission.h"

#include "curl/transfer/url.h"
#include "gate.h"
#include "quotas.h"

#include <sys/resource.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace MZCurl {
namespace {

/// @return how many slots the process's limit of descriptors allows
std::size_t affordableSlots()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kMostSlots + kOtherDescriptors) {
        return kMostSlots;
    }
    const auto most = static_cast<std::size_t>(limit.rlim_cur);
    return std::max(kFewestSlots, most > kOtherDescriptors ? most - kOtherDescriptors : 0);
}

/// @return the share of this name; created when there is none
template <class Shares>
Share& shareOf(Shares& shares, std::string_view name)
{
    const auto found = shares.find(name);
    return found != shares.end() ? found->second : shares[std::string(name)];
}

template <class Map>
void eraseUnused(Map& map)
{
    for (auto it = map.begin(); it != map.end();) {
        it = it->second.members == 0 ? map.erase(it) : std::next(it);
    }
}

/// @return whether libcurl still has the name in its cache: the transfer then needs no resolver thread
bool isNamed(const Share& host, Admission::Clock::time_point now)
{
    return host.named != Admission::Clock::time_point{} && now - host.named < kNameLife;
}

bool isWithin(std::size_t had, std::size_t share, std::size_t free)
{
    return free > 0 && (had == 0 || had < share * free);
}

}  // namespace

Admission::Admission() : m_slots(affordableSlots()) {}

bool Admission::join(Transfer& transfer, const std::string& sender)
{
    forgetUnused();
    Share& ofSender = shareOf(m_senders, sender);
    Share& ofPath = shareOf(m_paths, pathOf(transfer.options.url));
    Share& ofHost = shareOf(m_hosts, *transfer.place.hostKey);
    const std::size_t free = kMostAccepted - m_members;
    if (!isWithin(ofSender.members, kSenderShare, free) ||
        !isWithin(ofPath.members, kPathShare, free)) {
        return false;
    }
    Lane& lane = m_lanes[{&ofSender, &ofPath}];
    if (lane.sender == nullptr) {
        lane.turn.push_back(&lane);
        lane.sender = &ofSender;
        lane.path = &ofPath;
        lane.host = &ofHost;
    }
    ++lane.members;
    ++ofSender.members;
    ++ofPath.members;
    ++ofHost.members;
    ++m_members;
    transfer.place.lane = &lane;
    return true;
}

void Admission::forgetUnused()
{
    if (std::max({m_lanes.size(), m_senders.size(), m_paths.size(), m_hosts.size()}) >
        kRemembered + m_members) {
        eraseUnused(m_lanes);
        eraseUnused(m_senders);
        eraseUnused(m_paths);
        eraseUnused(m_hosts);
    }
}

void Admission::leave(Transfer& transfer)
{
    release(transfer, {});
    Lane& lane = *transfer.place.lane;
    unlistIfEmpty(lane);
    --lane.members;
    --lane.sender->members;
    --lane.path->members;
    --lane.host->members;
    --m_members;
    transfer.place.lane = nullptr;
}

void Admission::enqueue(Transfer& transfer, Clock::time_point now)
{
    Lane& lane = *transfer.place.lane;
    transfer.place.queued = now;
    moveTo(transfer, lane.waiting);
    if (!lane.turn.empty()) {
        m_turns.splice(m_turns.end(), lane.turn);
    }
}

void Admission::unlistIfEmpty(Lane& lane)
{
    if (lane.waiting.empty() && lane.turn.empty()) {
        lane.turn.splice(lane.turn.end(), m_turns,
                         std::find(m_turns.begin(), m_turns.end(), &lane));
    }
}

bool Admission::hasSlotFor(const Lane& lane, Clock::time_point now) const
{
    return m_taken < m_slots && (m_resolving < kMostResolving || isNamed(*lane.host, now)) &&
           mayOpenConnection(lane) && isWithin(lane.sender->slots, kSenderShare, freeSlots()) &&
           isWithin(lane.path->slots, kPathShare, freeSlots());
}

bool Admission::mayOpenConnection(const Lane& lane)
{
    return !lane.waiting.front()->mayBeSentAgain() || lane.opening < kMostOpening;
}

bool Admission::hasRoomAtHost(const Lane& lane, Clock::time_point now)
{
    // Only GETs wait for a kept connection: any other request opens a connection of its own.
    return !lane.waiting.front()->mayBeSentAgain() || lane.host->width.hasRoom(now);
}

bool Admission::waitsForHost(const Lane& lane, Clock::time_point now) const
{
    return hasSlotFor(lane, now) && !hasRoomAtHost(lane, now);
}

std::list<Lane*>::const_iterator Admission::turn(Clock::time_point now) const
{
    return std::find_if(m_turns.begin(), m_turns.end(), [this, now](const Lane* lane) {
        return hasSlotFor(*lane, now) && hasRoomAtHost(*lane, now);
    });
}

void Admission::widen(Clock::time_point now)
{
    for (const Lane* const lane : m_turns) {
        if (waitsForHost(*lane, now) &&
            now >= lane->host->width.widensAt(lane->waiting.front()->place.queued)) {
            lane->host->width.widen(now);
        }
    }
}

int Admission::waitBound(Clock::time_point now, int most) const
{
    int bound = most;
    for (const Lane* const lane : m_turns) {
        if (waitsForHost(*lane, now)) {
            const auto then = lane->host->width.widensAt(lane->waiting.front()->place.queued);
            bound = std::min(bound, millisecondsUntil(then, now));
        }
    }
    return bound;
}

Transfer* Admission::next(Clock::time_point now, TransferList& to)
{
    const auto turn = this->turn(now);
    if (turn == m_turns.end()) {
        return nullptr;
    }
    // Lanes in front of it cannot take a slot now; they keep their places.
    Lane& lane = **turn;
    m_turns.splice(m_turns.end(), m_turns, turn);
    Transfer& transfer = *lane.waiting.front();
    moveTo(transfer, to);
    unlistIfEmpty(lane);
    transfer.place.hasSlot = true;
    transfer.place.resolving = !isNamed(*lane.host, now);
    m_resolving += transfer.place.resolving ? 1U : 0U;
    ++m_taken;
    ++lane.sender->slots;
    ++lane.path->slots;
    transfer.place.countsAtHost = transfer.mayBeSentAgain();
    if (transfer.place.countsAtHost) {
        lane.host->width.begun();
        transfer.place.opening = true;
        ++lane.opening;
    }
    return &transfer;
}

Transfer* Admission::overdue(Clock::time_point now, TransferList& to)
{
    for (Lane* const lane : m_turns) {
        if (Transfer& first = *lane->waiting.front(); now - first.place.queued >= kLongestTurn) {
            moveTo(first, to);
            unlistIfEmpty(*lane);
            return &first;
        }
    }
    return nullptr;
}

void Admission::resolved(Transfer& transfer)
{
    stopResolving(transfer);
    transfer.place.lane->host->named = Clock::now();
}

void Admission::sending(Transfer& transfer)
{
    resolved(transfer);
    stopOpening(transfer);
}

void Admission::stopOpening(Transfer& transfer)
{
    if (std::exchange(transfer.place.opening, false)) {
        --transfer.place.lane->opening;
    }
}

void Admission::stopResolving(Transfer& transfer)
{
    if (transfer.place.resolving) {
        transfer.place.resolving = false;
        --m_resolving;
    }
}

void Admission::release(Transfer& transfer, Clock::time_point sent)
{
    stopResolving(transfer);
    stopOpening(transfer);
    if (transfer.place.hasSlot) {
        transfer.place.hasSlot = false;
        --m_taken;
        --transfer.place.lane->sender->slots;
        --transfer.place.lane->path->slots;
        if (std::exchange(transfer.place.countsAtHost, false)) {
            transfer.place.lane->host->width.ended(sent, Clock::now());
        }
    }
}

void Admission::drain(TransferList& to)
{
    while (!m_turns.empty()) {
        Lane& lane = *m_turns.front();
        while (!lane.waiting.empty()) {
            moveTo(*lane.waiting.front(), to);
        }
        unlistIfEmpty(lane);
    }
}

}  // namespace MZCurl
