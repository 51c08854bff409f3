// BusFlowAnswers.cpp - the flow control: sends its questions and handles the answers.
#include "BusFlow.h"
#include "BusLimits.h"

#include <algorithm>

using namespace BusLimits;

namespace {

constexpr const char* UNKNOWN_USER = "unknown";

// The bus reports that the name has no owner.
bool IsGone(const std::string& strError)
{
    return strError == "org.freedesktop.DBus.Error.NameHasNoOwner" ||
           strError == "org.freedesktop.DBus.Error.ServiceUnknown";
}

// A passing lack of resources: the error tells nothing about the caller.
bool IsPassing(const std::string& strError)
{
    return strError == "org.freedesktop.DBus.Error.NoMemory" ||
           strError == "org.freedesktop.DBus.Error.LimitsExceeded";
}

// Sent by the bus when the caller left without an answer, or when the call timed out.
bool IsNoReply(const std::string& strError)
{
    return strError == "org.freedesktop.DBus.Error.NoReply";
}

}  // namespace

void CBusFlow::AskAbout(BusCaller& tCaller, gint64 iNow)
{
    // The time of the next attempt, in case the question cannot be sent.
    tCaller.iAskAt = iNow + LONGEST_PAUSE_MS;
    const BusQuestion eKind = m_eMeans == Means::BUS ? BusQuestion::UNREAD : BusQuestion::PING;
    if (!m_questions.Ask({eKind, tCaller.strName, tCaller.uUnread, iNow})) {
        m_oPort.WakeAt(tCaller.iAskAt);
        return;
    }
    tCaller.bAsked = true;
    tCaller.iAskedAt = iNow;
    tCaller.iAskAt = 0;
    if (eKind == BusQuestion::UNREAD) {
        m_oPort.WakeAt(iNow + BUS_SILENT_MS);
    } else if (m_bPingUntried && m_iPingReportAt == 0) {
        m_bPingUntried = false;
        m_iPingReportAt = iNow + PING_REPORT_MS;
        m_oPort.WakeAt(m_iPingReportAt);
    }
}

void CBusFlow::AskAboutOthers(gint64 iNow)
{
    for (auto& [strName, tCaller] : m_ledger.Callers()) {
        const bool bTold = tCaller.iAskedAt != 0 && iNow - tCaller.iAskedAt < LONGEST_PAUSE_MS;
        if (tCaller.uUnread > 0 && tCaller.held.empty() && !tCaller.bAsked && !bTold) {
            AskAbout(tCaller, iNow);
        }
    }
}

void CBusFlow::AskWhetherThere(BusCaller& tCaller, gint64 iNow)
{
    if (m_eMeans == Means::BUS) {
        AskAbout(tCaller, iNow);
        return;
    }
    // No ping: one that is never answered would occupy a place among the open questions for good.
    tCaller.bAsked = m_questions.Ask({BusQuestion::OWNER, tCaller.strName, tCaller.uUnread, iNow});
    m_oPort.WakeAt(iNow + BUS_SILENT_MS);
}

void CBusFlow::AskWhose(const std::string& strName, gint64 iNow)
{
    const BusOpenQuestion tQuestion{BusQuestion::USER, strName, 0, iNow};
    if (!m_questions.Ask(tQuestion)) {
        OnUser(tQuestion, BusAnswer{}, iNow);
        return;
    }
    m_oPort.WakeAt(iNow + BUS_SILENT_MS);
}

void CBusFlow::AskForProof(gint64 iNow)
{
    m_iProofAt = iNow + PROOF_MS;
    if (m_questions.Ask({BusQuestion::PROOF, "", 0, iNow})) {
        m_bProofAsked = true;
        m_bUnproven = false;
        m_iProofAt = 0;
    }
}

bool CBusFlow::Answer(GDBusMessage* pMessage)
{
    const guint32 uSerial = g_dbus_message_get_reply_serial(pMessage);
    if (uSerial < FIRST_SERIAL) {
        return false;
    }
    const BusAnswer tAnswer = ReadAnswer(pMessage);
    const auto tQuestion = m_questions.Take(uSerial, tAnswer.strSender);
    if (!tQuestion) {
        return false;
    }
    const gint64 iNow = m_oPort.Now();
    switch (tQuestion->eKind) {
        case BusQuestion::UNREAD:
            OnUnread(*tQuestion, tAnswer, iNow);
            break;
        case BusQuestion::PING:
            OnPing(*tQuestion, tAnswer, iNow);
            break;
        case BusQuestion::OWNER:
            OnOwner(*tQuestion, tAnswer, iNow);
            break;
        case BusQuestion::USER:
            OnUser(*tQuestion, tAnswer, iNow);
            break;
        case BusQuestion::PROOF:
            OnProof(iNow);
            break;
        case BusQuestion::WATCH:
            break;
    }
    return true;
}

void CBusFlow::OnUnread(const BusOpenQuestion& tQuestion, const BusAnswer& tAnswer, gint64 iNow)
{
    const bool bGone = IsGone(tAnswer.strError);
    BusCaller* ptCaller = m_ledger.Find(tQuestion.strName);
    if (ptCaller != nullptr) {
        ptCaller->bAsked = false;
    }
    if (bGone) {
        Gone(tQuestion.strName, iNow);
        return;
    }
    if (!tAnswer.bValue && !IsPassing(tAnswer.strError)) {
        BusIsNoMeans(tAnswer.strError);
    }
    if (ptCaller == nullptr) {
        return;
    }
    // Bytes sent after the question count as unread.
    const std::size_t uSince = ptCaller->uUnread - tQuestion.uUnread;
    const std::size_t uThen = tAnswer.bValue
                                  ? std::min<std::size_t>(tQuestion.uUnread, tAnswer.uValue)
                                  : tQuestion.uUnread;
    Known(*ptCaller, uThen + uSince, iNow);
}

void CBusFlow::OnPing(const BusOpenQuestion& tQuestion, const BusAnswer& tAnswer, gint64 iNow)
{
    BusCaller* ptCaller = m_ledger.Find(tQuestion.strName);
    if (ptCaller != nullptr) {
        ptCaller->bAsked = false;
    }
    const bool bCaller = tAnswer.strSender == tQuestion.strName;
    if (bCaller) {
        ReportPing();
    }
    if (!bCaller && IsGone(tAnswer.strError)) {
        Gone(tQuestion.strName, iNow);
    } else if (!bCaller && IsNoReply(tAnswer.strError)) {
        if (ptCaller != nullptr) {
            AskWhetherThere(*ptCaller, iNow);
        }
    } else if (!bCaller && !IsPassing(tAnswer.strError)) {
        PingIsNoMeans(tAnswer.strError);
    } else if (ptCaller != nullptr) {
        // Any answer of the caller itself, an error included, proves that it has read what came before.
        Known(*ptCaller, ptCaller->uUnread - (bCaller ? tQuestion.uUnread : 0), iNow);
    }
}

void CBusFlow::OnOwner(const BusOpenQuestion& tQuestion, const BusAnswer& tAnswer, gint64 iNow)
{
    BusCaller* ptCaller = m_ledger.Find(tQuestion.strName);
    if (ptCaller == nullptr) {
        return;
    }
    ptCaller->bAsked = false;
    if (IsGone(tAnswer.strError)) {
        Gone(tQuestion.strName, iNow);
        return;
    }
    ptCaller->iLastSeen = iNow;
    if (!ptCaller->held.empty()) {
        ptCaller->iAskAt = iNow + LONGEST_PAUSE_MS;
        m_oPort.WakeAt(ptCaller->iAskAt);
    }
}

void CBusFlow::OnUser(const BusOpenQuestion& tQuestion, const BusAnswer& tAnswer, gint64 iNow)
{
    if (tAnswer.bValue) {
        m_users.IsOf(tQuestion.strName, tAnswer.uValue, iNow);
    }
    const std::string strUser = tAnswer.bValue ? std::to_string(tAnswer.uValue) : UNKNOWN_USER;
    m_report.IsOf(tQuestion.strName, strUser);
    BusCaller* ptCaller = m_ledger.Find(tQuestion.strName);
    if (ptCaller == nullptr || ptCaller->eStory != BusStory::ASKING) {
        return;
    }
    ptCaller->strUser = strUser;
    ptCaller->eStory = ptCaller->held.empty() ? BusStory::NONE : BusStory::TOLD;
    if (ptCaller->eStory == BusStory::TOLD) {
        m_report.HeldBack(*ptCaller);
    }
}

// Logs that callers are asked, once it is known that they may be.
void CBusFlow::ReportPing()
{
    if (m_iPingReportAt != 0) {
        m_iPingReportAt = 0;
        m_report.AsksCallers(m_strBusError.c_str());
    }
}

void CBusFlow::OnProof(gint64 iNow)
{
    m_bProofAsked = false;
    m_iLastProof = iNow;
    if (m_bUnproven) {
        m_iProofAt = iNow + PROOF_MS;
        m_oPort.WakeAt(m_iProofAt);
    }
}

void CBusFlow::BusIsNoMeans(const std::string& strError)
{
    if (m_eMeans == Means::BUS) {
        m_eMeans = Means::PING;
        m_bPingUntried = true;
        m_strBusError = strError;
    }
}

void CBusFlow::PingIsNoMeans(const std::string& strError)
{
    if (m_eMeans != Means::PING) {
        return;
    }
    m_eMeans = Means::NONE;
    m_iPingReportAt = 0;
    m_report.AsksNobody(strError.c_str());
    const gint64 iNow = m_oPort.Now();
    // A bus that does not read from the service does not notice its exit, and keeps the bus name from the
    // next instance. A bus that has a signal to deliver notices it; the next instance's arrival is such a
    // signal. The subscription goes out now: behind all the held replies the bus might not read it.
    m_questions.Ask({BusQuestion::WATCH, "", 0, iNow});
    // From here on every reply is sent at once; only the total is watched.
    for (auto& [strName, tCaller] : m_ledger.Callers()) {
        for (const BusHeldReply& tHeld : tCaller.held) {
            SentUnknown(tHeld.uBytes, iNow);
            m_oPort.Release(tHeld.pMessage.get());
        }
    }
    m_ledger = CBusLedger();
}
