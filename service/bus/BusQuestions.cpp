// BusQuestions.cpp - the open questions of the flow control.
#include "BusQuestions.h"

#include "BusLimits.h"

using namespace BusLimits;

namespace {

constexpr const char* BUS_NAME = "org.freedesktop.DBus";

}  // namespace

CBusQuestions::CBusQuestions(CBusPort& oPort) : m_oPort(oPort) {}

bool CBusQuestions::Ask(const BusOpenQuestion& tQuestion)
{
    if (IsFull(tQuestion.eKind)) {
        return false;
    }
    guint32 uSerial = 0;
    do {
        uSerial = m_oPort.Random() | FIRST_SERIAL;
    } while (m_open.count(uSerial) != 0);
    if (!m_oPort.Ask(tQuestion.eKind, tQuestion.strName, uSerial)) {
        return false;
    }
    m_open.emplace(uSerial, tQuestion);
    return true;
}

std::optional<BusOpenQuestion> CBusQuestions::Take(guint32 uSerial, const std::string& strSender)
{
    const auto it = m_open.find(uSerial);
    if (it == m_open.end()) {
        return std::nullopt;
    }
    // The bus answers in place of a caller that has left or must not be asked.
    const bool bCaller = it->second.eKind == BusQuestion::PING && strSender == it->second.strName;
    if (!bCaller && strSender != BUS_NAME) {
        return std::nullopt;
    }
    BusOpenQuestion tQuestion = std::move(it->second);
    m_open.erase(it);
    return tQuestion;
}

gint64 CBusQuestions::OldestToBus() const
{
    gint64 iOldest = 0;
    for (const auto& [uSerial, tQuestion] : m_open) {
        const bool bToBus = tQuestion.eKind != BusQuestion::PING;
        if (bToBus && (iOldest == 0 || tQuestion.iSince < iOldest)) {
            iOldest = tQuestion.iSince;
        }
    }
    return iOldest;
}

bool CBusQuestions::IsFull(BusQuestion eKind) const
{
    const bool bMany = eKind == BusQuestion::UNREAD || eKind == BusQuestion::PING;
    return m_open.size() >= (bMany ? QUESTIONS : QUESTIONS + QUESTIONS_KEPT);
}
