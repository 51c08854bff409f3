// BusFlow.h - the flow control of the service's bus connection: which reply goes out now,
// which waits, which becomes an error.
//
// A caller that reads nothing must not delay the others. The flow control asks the bus how many bytes a
// caller has not read; beyond a window it holds the caller's replies back, in their order. Where the bus
// does not tell, it pings the caller (Peer.Ping): an answer proves that everything before it was read.
#pragma once

#include "BusLedger.h"
#include "BusPort.h"
#include "BusQuestions.h"
#include "BusReport.h"
#include "BusUsers.h"

#include <string>

/// Thread: one at a time; the user of this class serialises the calls.
class CBusFlow {
public:
    /// @param oPort must outlive this object
    explicit CBusFlow(CBusPort& oPort);

    /// Tests whether the bus tells how many bytes are unread.
    /// @param strOwnName the service's unique name
    void Start(const std::string& strOwnName);

    /// Records an incoming call. The bus is asked once for the user of each sender.
    /// @param strSender the caller's unique name
    void Called(const std::string& strSender);

    /// Records a refused call.
    /// @param uArgumentBytes size of its arguments when they were too long; 0 when too many calls that
    ///   expect no reply were queued
    void RefusedCall(const std::string& strSender, std::size_t uArgumentBytes);

    /// Handles a reply that is about to be sent.
    /// @param[in,out] pReply has a destination; null afterwards when the reply was held back
    void Reply(BusMessagePtr& pReply);

    /// Handles an incoming reply.
    /// @return true when it answers a question of the flow control: the bus library must not see it
    bool Answer(GDBusMessage* pMessage);

    /// Runs what is due. Called at the time given to the port. Thread: main.
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
    std::string m_strBusError;  // the error with which the bus refused to tell
    // True from the switch to pings until the first ping is sent.
    bool m_bPingUntried = false;
    gint64 m_iPingReportAt = 0;

    std::size_t m_uUnknown = 0;  // bytes sent since nothing tells what is read
    bool m_bUnproven = false;    // bytes were sent after the last PROOF question
    bool m_bProofAsked = false;
    gint64 m_iProofAt = 0;
    gint64 m_iLastProof = 0;
    gint64 m_iProgress = 0;    // last time that a caller read, or that nothing was held
    gint64 m_iGiveBackAt = 0;  // when to give memory back; 0: too little was held
    bool m_bEnded = false;
};
