// BusFlow.h - the flow control of the service's bus connection: which reply goes out now,
// which waits, which becomes an error.
//
// A caller that reads nothing costs the others nothing: what it has not read is asked of the bus, and
// beyond a window its replies wait here, in their order. Where the bus does not tell, the caller
// itself is asked (Peer.Ping); an answer says that it has read what came before.
#pragma once

#include "BusLedger.h"
#include "BusPort.h"
#include "BusQuestions.h"
#include "BusReport.h"
#include "BusUsers.h"

#include <string>

/// Thread: one at a time; the caller sees to it.
class CBusFlow {
public:
    /// @param oPort outlives it
    explicit CBusFlow(CBusPort& oPort);

    /// Finds out whether the bus tells what is unread. @param strOwnName the service's unique name
    void Start(const std::string& strOwnName);

    /// A call has come in. @param strSender asked about once: whose it is
    void Called(const std::string& strSender);

    /// A call was refused. @param uArgumentBytes what it has too many of; 0: too many calls that want
    ///   no answer wait
    void RefusedCall(const std::string& strSender, std::size_t uArgumentBytes);

    /// A reply is about to go out. @param[in,out] pReply has a destination; emptied when the reply
    ///   must not go out now
    void Reply(BusMessagePtr& pReply);

    /// A reply has come in. @return true when it was the answer to a question of the service's own:
    ///   nobody else is to see it
    bool Answer(GDBusMessage* pMessage);

    /// To be called at the time that was asked of the port. Thread: main
    void Timer();

private:
    enum class Means { BUS, PING, NONE };

    void AskAbout(BusCaller& tCaller, gint64 iNow);
    void AskAboutOthers(gint64 iNow);
    void AskWhetherThere(BusCaller& tCaller, gint64 iNow);
    void AskWhose(const std::string& strName, gint64 iNow);
    void AskForProof(gint64 iNow);

    void OnUnread(const BusOpenQuestion& tQuestion, const BusAnswer& tAnswer, gint64 iNow);
    void OnPing(const BusOpenQuestion& tQuestion, const BusAnswer& tAnswer, gint64 iNow);
    void OnOwner(const BusOpenQuestion& tQuestion, const BusAnswer& tAnswer, gint64 iNow);
    void OnUser(const BusOpenQuestion& tQuestion, const BusAnswer& tAnswer, gint64 iNow);
    void OnProof(gint64 iNow);
    void BusIsNoMeans(const std::string& strError);
    void PingIsNoMeans(const std::string& strError);
    void ReportPing();

    void Hold(BusCaller& tCaller, BusMessagePtr pReply, std::size_t uBytes, gint64 iNow);
    void RefuseExcess(BusCaller& tCaller, gint64 iNow);
    void Known(BusCaller& tCaller, std::size_t uUnread, gint64 iNow);
    void ReleaseAll(gint64 iNow);
    void IsOver(BusCaller& tCaller);
    void Gone(const std::string& strName, gint64 iNow);
    void SentUnknown(std::size_t uBytes, gint64 iNow);

    void BeginStory(BusCaller& tCaller, gint64 iNow);
    void GiveBackAtRest(gint64 iNow);
    void StopCountingStuck(gint64 iNow);
    bool TendCaller(BusCaller& tCaller, gint64 iNow);
    void WakeAt(gint64 iTime);

    CBusPort& m_oPort;
    CBusLedger m_ledger;
    CBusQuestions m_questions;
    CBusReport m_report;
    CBusUsers m_users;
    Means m_eMeans = Means::BUS;
    std::string m_strBusError;  // how the bus refused to tell
    // No caller has answered a ping yet, and the log does not know that callers are asked.
    bool m_bPingUntried = false;
    gint64 m_iPingReportAt = 0;

    std::size_t m_uUnknown = 0;  // bytes sent since nobody tells what is read
    bool m_bUnproven = false;    // some were sent after the last question for a proof
    bool m_bProofAsked = false;
    gint64 m_iProofAt = 0;
    gint64 m_iLastProof = 0;
    gint64 m_iProgress = 0;    // when a caller read on, or nothing waited yet
    gint64 m_iGiveBackAt = 0;  // much has waited
    bool m_bEnded = false;
};
