// BusLedger.cpp - the unread bytes and the held replies of each caller.
#include "BusLedger.h"

#include "BusLimits.h"

#include <algorithm>
#include <iterator>

using namespace BusLimits;

BusCaller& CBusLedger::Of(const std::string& strName, gint64 iNow)
{
    const auto [it, bNew] = m_callers.try_emplace(strName);
    if (bNew) {
        it->second.strName = strName;
        it->second.iProgress = iNow;
        it->second.iLastSeen = iNow;
    }
    return it->second;
}

BusCaller* CBusLedger::Find(const std::string& strName)
{
    const auto it = m_callers.find(strName);
    return it != m_callers.end() ? &it->second : nullptr;
}

std::size_t CBusLedger::Forget(const std::string& strName)
{
    const auto it = m_callers.find(strName);
    if (it == m_callers.end()) {
        return 0;
    }
    BusCaller& tCaller = it->second;
    const std::size_t uDropped = tCaller.held.size();
    for (BusHeldReply& tHeld : tCaller.held) {
        Unweigh(tHeld);
    }
    m_uUnread -= tCaller.uUnread;
    m_callers.erase(it);
    return uDropped;
}

void CBusLedger::ForgetIfSettled(BusCaller& tCaller)
{
    if (tCaller.uUnread == 0 && tCaller.held.empty() && !tCaller.bAsked) {
        m_callers.erase(m_callers.find(tCaller.strName));
    }
}

BusCaller* CBusLedger::Superfluous()
{
    if (m_callers.size() <= KEPT_CALLERS) {
        return nullptr;
    }
    BusCaller* ptOldest = nullptr;
    for (auto& [strName, tCaller] : m_callers) {
        const bool bIdle = tCaller.held.empty() && !tCaller.bAsked;
        if (bIdle && (ptOldest == nullptr || tCaller.iLastSeen < ptOldest->iLastSeen)) {
            ptOldest = &tCaller;
        }
    }
    return ptOldest;
}

bool CBusLedger::FitsWindow(const BusCaller& tCaller, std::size_t uBytes) const
{
    const std::size_t uWindow = m_uUnread + uBytes <= PLENTY_BYTES ? tCaller.uWindow : WINDOW_BYTES;
    return tCaller.uUnread == 0 || tCaller.uUnread + uBytes <= uWindow;
}

bool CBusLedger::HasRoom(const BusCaller& tCaller, std::size_t uBytes) const
{
    const std::size_t uAll =
        uBytes > LARGE_BYTES ? UNREAD_BYTES : UNREAD_BYTES + UNREAD_SMALL_BYTES;
    return FitsWindow(tCaller, uBytes) && m_uUnread + uBytes <= uAll;
}

void CBusLedger::Sent(BusCaller& tCaller, std::size_t uBytes, gint64 iNow)
{
    tCaller.uUnread += uBytes;
    tCaller.iLastSeen = iNow;
    m_uUnread += uBytes;
}

void CBusLedger::SetUnread(BusCaller& tCaller, std::size_t uUnread, gint64 iNow)
{
    if (uUnread >= tCaller.uUnread) {
        tCaller.uWindow = WINDOW_BYTES;
    } else {
        tCaller.iProgress = iNow;
        if (tCaller.uUnread - uUnread >= AskBytes(tCaller.uWindow)) {
            tCaller.uWindow = std::min(tCaller.uWindow * 2, WIDEST_WINDOW_BYTES);
        }
    }
    m_uUnread -= tCaller.uUnread;
    m_uUnread += uUnread;
    tCaller.uUnread = uUnread;
}

void CBusLedger::Hold(BusCaller& tCaller, BusMessagePtr pMessage, std::size_t uBytes, gint64 iNow)
{
    if (tCaller.held.empty()) {
        tCaller.iHeldSince = iNow;
    }
    tCaller.held.push_back({std::move(pMessage), uBytes, ++m_uOrder, &tCaller});
    Weigh(tCaller.held.back());
}

BusMessagePtr CBusLedger::TakeNext(BusCaller& tCaller, gint64 iNow)
{
    if (tCaller.held.empty() || !HasRoom(tCaller, tCaller.held.front().uBytes)) {
        return nullptr;
    }
    BusHeldReply& tHeld = tCaller.held.front();
    Unweigh(tHeld);
    Sent(tCaller, tHeld.uBytes, iNow);
    tCaller.iProgress = iNow;
    BusMessagePtr pMessage = std::move(tHeld.pMessage);
    tCaller.held.pop_front();
    return pMessage;
}

bool CBusLedger::HoldsTooMuch() const
{
    return m_uHeldBytes > HELD_BYTES;
}

BusHeldReply* CBusLedger::ToBeRefused(gint64 iNow) const
{
    for (BusHeldReply* ptHeld : m_refusable) {
        if (iNow - ptHeld->ptCaller->iProgress >= STUCK_MS) {
            return ptHeld;
        }
    }
    return m_refusable.empty() ? nullptr : *m_refusable.begin();
}

void CBusLedger::Replace(BusHeldReply& tHeld, BusMessagePtr pMessage, std::size_t uBytes)
{
    Unweigh(tHeld);
    tHeld.pMessage = std::move(pMessage);
    tHeld.uBytes = uBytes;
    Weigh(tHeld);
}

void CBusLedger::DropLast(BusCaller& tCaller)
{
    Unweigh(tCaller.held.back());
    tCaller.held.pop_back();
}

void CBusLedger::Weigh(BusHeldReply& tHeld)
{
    const std::size_t uCost = tHeld.uBytes + HELD_EXTRA_BYTES;
    tHeld.ptCaller->uHeldBytes += uCost;
    m_uHeldBytes += uCost;
    if (tHeld.uBytes >= REFUSABLE_BYTES) {
        m_refusable.insert(&tHeld);
    }
}

void CBusLedger::Unweigh(BusHeldReply& tHeld)
{
    const std::size_t uCost = tHeld.uBytes + HELD_EXTRA_BYTES;
    tHeld.ptCaller->uHeldBytes -= uCost;
    m_uHeldBytes -= uCost;
    m_refusable.erase(&tHeld);
}
