// BusBacklog.cpp - how many calls of each caller wait for the main loop.
#include "BusBacklog.h"

#include "BusLimits.h"

#include <glib.h>

/// A queued call: an idle source of the main context that runs just before the call.
struct CBusBacklog::Place {
    std::shared_ptr<CBusBacklog> pBacklog;
    std::string strSender;
};

std::shared_ptr<CBusBacklog> CBusBacklog::Make()
{
    return std::shared_ptr<CBusBacklog>(new CBusBacklog);
}

bool CBusBacklog::Enter(const std::string& strSender)
{
    auto pPlace = std::make_unique<Place>(Place{shared_from_this(), strSender});
    {
        const std::lock_guard<std::mutex> oLock(m_oLock);
        std::size_t& uWaiting = m_waiting[strSender];
        if (uWaiting >= BusLimits::UNANSWERED_CALLS) {
            return false;
        }
        ++uWaiting;
    }
    // Sources of one priority run in the order of arrival: this one runs just before the call.
    const auto leave = [](gpointer pGiven) -> gboolean {
        const auto* pWaited = static_cast<const Place*>(pGiven);
        pWaited->pBacklog->Leave(pWaited->strSender);
        return G_SOURCE_REMOVE;
    };
    const auto destroy = [](gpointer pGiven) { delete static_cast<Place*>(pGiven); };
    g_idle_add_full(G_PRIORITY_DEFAULT, leave, pPlace.release(), destroy);
    return true;
}

void CBusBacklog::Leave(const std::string& strSender)
{
    const std::lock_guard<std::mutex> oLock(m_oLock);
    const auto it = m_waiting.find(strSender);
    if (it != m_waiting.end() && --it->second == 0) {
        m_waiting.erase(it);
    }
}
