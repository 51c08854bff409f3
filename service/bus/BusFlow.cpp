// BusFlow.cpp - the flow control: calls and replies as they pass.
#include "BusFlow.h"

#include "BusLimits.h"
#include "ReplyBody.h"

#include <algorithm>

using namespace BusLimits;

namespace {

// States that the request was carried out: the caller must not take the error for "not done".
constexpr const char* ANSWER_DROPPED =
    "the request was made, but its answer is dropped: earlier answers to this caller are not read; "
    "read them before asking more";

}  // namespace

CBusFlow::CBusFlow(CBusPort& oPort) : m_oPort(oPort), m_questions(oPort) {}

void CBusFlow::Start(const std::string& strOwnName)
{
    m_questions.Ask({BusQuestion::UNREAD, strOwnName, 0, m_oPort.Now()});
}

void CBusFlow::Called(const std::string& strSender)
{
    // No timer for this question: a silent bus is detected by the questions that replies depend on.
    if (!m_users.Knows(strSender) &&
        m_questions.Ask({BusQuestion::USER, strSender, 0, m_oPort.Now()})) {
        m_users.Asked(strSender);
    }
}

void CBusFlow::RefusedCall(const std::string& strSender, std::size_t uArgumentBytes)
{
    const gint64 iNow = m_oPort.Now();
    if (m_report.RefusedCall(strSender, uArgumentBytes, iNow)) {
        AskWhose(strSender, iNow);
        m_oPort.WakeAt(iNow + REFUSALS_OVER_MS);
    }
}

void CBusFlow::Reply(BusMessagePtr& pReply)
{
    const gint64 iNow = m_oPort.Now();
    const std::size_t uBytes = HEADER_BYTES + BodyBytes(pReply.get());
    if (m_eMeans == Means::NONE) {
        SentUnknown(uBytes, iNow);
        return;
    }
    const std::size_t uKnown = m_ledger.Callers().size();
    BusCaller& tCaller = m_ledger.Of(g_dbus_message_get_destination(pReply.get()), iNow);
    if (!tCaller.held.empty() || !m_ledger.HasRoom(tCaller, uBytes)) {
        Hold(tCaller, std::move(pReply), uBytes, iNow);
        return;
    }
    m_ledger.Sent(tCaller, uBytes, iNow);
    if (!tCaller.bAsked && (tCaller.uUnread > AskBytes(tCaller.uWindow) || m_bPingUntried)) {
        AskAbout(tCaller, iNow);
    }
    if (m_ledger.Callers().size() > uKnown) {
        BusCaller* ptOldest = m_ledger.Superfluous();
        if (ptOldest != nullptr) {
            AskWhetherThere(*ptOldest, iNow);
        }
    }
}

void CBusFlow::Hold(BusCaller& tCaller, BusMessagePtr pReply, std::size_t uBytes, gint64 iNow)
{
    const bool bWindow = m_ledger.FitsWindow(tCaller, uBytes);
    if (m_ledger.HeldBytes() == 0) {
        m_iProgress = iNow;
    }
    m_ledger.Hold(tCaller, std::move(pReply), uBytes, iNow);
    if (m_ledger.HeldBytes() > GIVE_BACK_BYTES) {
        m_iGiveBackAt = iNow + LONGEST_PAUSE_MS;
    }
    ++tCaller.uHeldReplies;
    m_oPort.WakeAt(iNow + FIRST_PAUSE_MS);
    RefuseExcess(tCaller, iNow);
    if (!tCaller.bAsked && tCaller.iAskAt == 0) {
        if (tCaller.uUnread > 0) {
            AskAbout(tCaller, iNow);
        } else {
            tCaller.iAskAt = iNow + LONGEST_PAUSE_MS;
        }
    }
    if (bWindow) {
        // The caller's own window has room: what other callers have not read blocks the reply.
        AskAboutOthers(iNow);
    }
}

void CBusFlow::RefuseExcess(BusCaller& tCaller, gint64 iNow)
{
    while (m_ledger.HoldsTooMuch()) {
        BusHeldReply* ptHeld = m_ledger.ToBeRefused(iNow);
        if (ptHeld == nullptr) {
            // Thousands of held replies, all too small to be refused (REFUSABLE_BYTES).
            ++tCaller.uRefusedReplies;
            m_ledger.DropLast(tCaller);
            return;
        }
        ++ptHeld->ptCaller->uRefusedReplies;
        BusMessagePtr pRefusal = MakeRefusal(ptHeld->pMessage.get(), ANSWER_DROPPED);
        const std::size_t uBytes = HEADER_BYTES + BodyBytes(pRefusal.get());
        m_ledger.Replace(*ptHeld, std::move(pRefusal), uBytes);
    }
}

void CBusFlow::Known(BusCaller& tCaller, std::size_t uUnread, gint64 iNow)
{
    const bool bProgress = uUnread < tCaller.uUnread;
    m_ledger.SetUnread(tCaller, uUnread, iNow);
    tCaller.iLastSeen = iNow;
    m_iProgress = bProgress ? iNow : m_iProgress;
    tCaller.iPause = bProgress ? FIRST_PAUSE_MS
                               : std::clamp(tCaller.iPause * 2, FIRST_PAUSE_MS, LONGEST_PAUSE_MS);
    ReleaseAll(iNow);
    if (tCaller.held.empty()) {
        m_ledger.ForgetIfSettled(tCaller);
    } else if (m_eMeans == Means::PING && bProgress && !tCaller.bAsked && tCaller.uUnread > 0) {
        // No pause: a caller that is still behind answers the next ping only after it has read more.
        AskAbout(tCaller, iNow);
    } else if (!tCaller.bAsked) {
        tCaller.iAskAt = iNow + tCaller.iPause;
        m_oPort.WakeAt(tCaller.iAskAt);
    }
}

void CBusFlow::ReleaseAll(gint64 iNow)
{
    for (auto& [strName, tCaller] : m_ledger.Callers()) {
        if (tCaller.held.empty()) {
            continue;
        }
        bool bSome = false;
        while (const BusMessagePtr pNext = m_ledger.TakeNext(tCaller, iNow)) {
            m_oPort.Release(pNext.get());
            bSome = true;
        }
        if (tCaller.held.empty()) {
            IsOver(tCaller);
        } else if (bSome && !tCaller.bAsked) {
            // The bus reads the question after the released replies.
            AskAbout(tCaller, iNow);
        }
    }
}

void CBusFlow::IsOver(BusCaller& tCaller)
{
    if (tCaller.eStory == BusStory::TOLD) {
        m_report.GoesOn(tCaller);
    }
    if (tCaller.eStory != BusStory::ASKING) {
        tCaller.eStory = BusStory::NONE;
    }
    tCaller.uHeldReplies = 0;
    tCaller.uRefusedReplies = 0;
    tCaller.iAskAt = 0;
}

void CBusFlow::Gone(const std::string& strName, gint64 iNow)
{
    const BusCaller* ptCaller = m_ledger.Find(strName);
    if (ptCaller == nullptr) {
        return;
    }
    if (ptCaller->eStory == BusStory::TOLD) {
        m_report.HasLeft(*ptCaller);
    }
    m_ledger.Forget(strName);
    m_iProgress = iNow;
    ReleaseAll(iNow);
}

void CBusFlow::SentUnknown(std::size_t uBytes, gint64 iNow)
{
    m_uUnknown += std::min(uBytes, UNKNOWN_BYTES + 1);
    if (m_uUnknown <= UNKNOWN_BYTES) {
        return;
    }
    m_uUnknown = UNKNOWN_BYTES + 1;
    m_bUnproven = true;
    if (!m_bProofAsked && m_iProofAt == 0) {
        m_iProofAt = m_iLastProof + PROOF_MS;
        m_oPort.WakeAt(std::max(m_iProofAt, iNow));
    }
}

void CBusFlow::Timer()
{
    if (m_bEnded) {
        return;
    }
    const gint64 iNow = m_oPort.Now();
    const gint64 iOldest = m_questions.OldestToBus();
    if (iOldest != 0 && iNow - iOldest >= BUS_SILENT_MS) {
        m_bEnded = true;
        m_report.BusIsSilent();
        m_oPort.EndService();
        return;
    }
    if (m_iProofAt != 0 && m_iProofAt <= iNow) {
        AskForProof(iNow);
    }
    if (m_iPingReportAt <= iNow) {
        // A bus that refuses pings would have said so by now.
        ReportPing();
    }
    bool bShort = false;
    for (auto& [strName, tCaller] : m_ledger.Callers()) {
        bShort = TendCaller(tCaller, iNow) || bShort;
    }
    if (bShort) {
        AskAboutOthers(iNow);
        m_oPort.WakeAt(iNow + LONGEST_PAUSE_MS);
    }
    GiveBackAtRest(iNow);
    StopCountingStuck(iNow);
    WakeAt(m_iGiveBackAt);
    WakeAt(m_report.TellOver(iNow));
    WakeAt(m_iProofAt);
    WakeAt(m_iPingReportAt);
    const gint64 iStill = m_questions.OldestToBus();
    WakeAt(iStill != 0 ? iStill + BUS_SILENT_MS : 0);
}

// At rest only: between two bursts the freed memory would be requested from the system again.
void CBusFlow::GiveBackAtRest(gint64 iNow)
{
    if (m_iGiveBackAt == 0 || iNow < m_iGiveBackAt) {
        return;
    }
    if (m_ledger.HeldBytes() > 0) {
        m_iGiveBackAt = iNow + LONGEST_PAUSE_MS;
        return;
    }
    m_iGiveBackAt = 0;
    m_oPort.GiveBack();
}

// While callers make progress, the next large answer is not received before the held ones were sent.
// Held replies without progress are no longer counted, so that they do not block further answers.
void CBusFlow::StopCountingStuck(gint64 iNow)
{
    for (const auto& [strName, tCaller] : m_ledger.Callers()) {
        if (tCaller.held.empty()) {
            continue;
        }
        const gint64 iProgress = tCaller.uUnread > 0 ? tCaller.iProgress : m_iProgress;
        const gint64 iStuckAt = std::min(iProgress, m_iProgress) + STUCK_MS;
        if (iNow < iStuckAt) {
            m_oPort.WakeAt(iStuckAt);
            continue;
        }
        for (const BusHeldReply& tHeld : tCaller.held) {
            if (tHeld.uBytes > LARGE_BYTES) {
                StopCounting(tHeld.pMessage.get());
            }
        }
    }
}

// @return true when the caller's window has room, and what other callers have not read blocks it
bool CBusFlow::TendCaller(BusCaller& tCaller, gint64 iNow)
{
    if (tCaller.held.empty()) {
        return false;
    }
    if (!tCaller.bAsked && tCaller.iAskAt <= iNow) {
        AskAbout(tCaller, iNow);
    }
    if (tCaller.eStory == BusStory::NONE) {
        if (iNow - tCaller.iHeldSince >= REPORT_MS) {
            BeginStory(tCaller, iNow);
        } else {
            WakeAt(tCaller.iHeldSince + REPORT_MS);
        }
    }
    WakeAt(tCaller.bAsked ? 0 : tCaller.iAskAt);
    return m_ledger.FitsWindow(tCaller, tCaller.held.front().uBytes);
}

void CBusFlow::BeginStory(BusCaller& tCaller, gint64 iNow)
{
    if (!m_report.MayBegin(iNow)) {
        tCaller.eStory = BusStory::MUTED;
        return;
    }
    tCaller.eStory = BusStory::ASKING;
    AskWhose(tCaller.strName, iNow);
}

void CBusFlow::WakeAt(gint64 iTime)
{
    if (iTime != 0) {
        m_oPort.WakeAt(iTime);
    }
}
