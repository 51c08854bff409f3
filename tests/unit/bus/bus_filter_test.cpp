// bus_filter_test.cpp - the messages that the flow control sees, its own messages on the bus, and its timer.
#include "BusFilter.h"
#include "BusLimits.h"
#include "filter_doubles.h"
#include "heap_double.h"
#include "log_matchers.h"

#include <gmock/gmock.h>

#include <csignal>

using namespace BusLimits;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr const char* LIMITS = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* DENIED = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* STATS = "org.freedesktop.DBus.Debug.Stats";
const LinesOf FILTER{"BusFilter.cpp"};

std::string Or(const gchar* szText)
{
    return szText != nullptr ? szText : "(none)";
}

// A call as text: "destination path interface member body".
std::string Shown(GDBusMessage* pMessage)
{
    GVariant* pBody = g_dbus_message_get_body(pMessage);
    std::string strBody = "-";
    if (pBody != nullptr) {
        gchar* szBody = g_variant_print(pBody, FALSE);
        strBody = szBody;
        g_free(szBody);
    }
    return Or(g_dbus_message_get_destination(pMessage)) + " " +
           Or(g_dbus_message_get_path(pMessage)) + " " +
           Or(g_dbus_message_get_interface(pMessage)) + " " +
           Or(g_dbus_message_get_member(pMessage)) + " " + strBody;
}

std::string ToBus(const std::string& strInterface, const std::string& strMember,
                  const std::string& strBody)
{
    return "org.freedesktop.DBus /org/freedesktop/DBus " + strInterface + " " + strMember + " " +
           strBody;
}

// One iteration serves everything in the queue, since all sources have the same priority. A loop until the
// queue is empty would not end: the filter's timer is always due.
void serveAll()
{
    g_main_context_iteration(nullptr, FALSE);
}

// Checks a question: its text, its own serial, kept by the bus library, and that it was sent with the lock
// held.
void ExpectQuestion(const SentMessage& tSent, const std::string& strShown)
{
    EXPECT_EQ(Shown(tSent.pMessage.get()), strShown);
    EXPECT_EQ(g_dbus_message_get_message_type(tSent.pMessage.get()),
              G_DBUS_MESSAGE_TYPE_METHOD_CALL);
    EXPECT_EQ(tSent.eFlags, G_DBUS_SEND_MESSAGE_FLAGS_PRESERVE_SERIAL);
    EXPECT_GE(g_dbus_message_get_serial(tSent.pMessage.get()), FIRST_SERIAL);
    EXPECT_EQ(tSent.uLocks, 1u);
}

const SentMessage& Last()
{
    return Filter().sent.back();
}

TEST_F(ABusFilter, IsThereBeforeTheBusIsAskedWhetherItTellsWhatIsUnread)
{
    install();
    EXPECT_EQ(Timeline(), These(Did("add_filter"), Did("send")));
    ExpectQuestion(Last(), ToBus(STATS, "GetConnectionStats", "(':1.7',)"));
}

TEST_F(ABusFilter, AsksNothingOnAConnectionWithoutABus)
{
    Filter().szUniqueName = nullptr;
    install();
    EXPECT_THAT(Filter().sent, IsEmpty());
}

TEST_F(ABusFilter, LetsACallPassAndAsksWhoseItIs)
{
    install();
    BusMessagePtr pCall = MakeCall(":1.1", ARGUMENT_BYTES);
    GDBusMessage* const pGiven = pCall.get();
    EXPECT_EQ(incoming(std::move(pCall)).get(), pGiven);
    ASSERT_THAT(Filter().sent, SizeIs(2));
    ExpectQuestion(Last(), ToBus(THE_BUS, "GetConnectionUnixUser", "(':1.1',)"));

    EXPECT_NE(incoming(MakeCall(":1.1")), nullptr);
    EXPECT_THAT(Filter().sent, SizeIs(2)) << "once";
}

TEST_F(ABusFilter, AsksAgainWhatCouldNotBeSent)
{
    install();
    Filter().bSends = false;
    EXPECT_NE(incoming(MakeCall(":1.1")), nullptr);
    Filter().bSends = true;
    EXPECT_NE(incoming(MakeCall(":1.1")), nullptr);
    EXPECT_THAT(Filter().sent, SizeIs(3));
}

TEST_F(ABusFilter, RefusesACallWhoseArgumentsAreTooLong)
{
    install();
    EXPECT_EQ(incoming(MakeCall(":1.1", ARGUMENT_BYTES + 1)), nullptr);
    ASSERT_THAT(Filter().sent, SizeIs(3));
    const SentMessage& tRefusal = Filter().sent[1];
    EXPECT_EQ(Shown(tRefusal.pMessage.get()),
              ":1.1 (none) (none) (none) ('the arguments of this call have 8193 bytes, at most "
              "8192 are taken: "
              "shorten them',)");
    EXPECT_EQ(g_dbus_message_get_message_type(tRefusal.pMessage.get()), G_DBUS_MESSAGE_TYPE_ERROR);
    EXPECT_STREQ(g_dbus_message_get_error_name(tRefusal.pMessage.get()), LIMITS);
    EXPECT_EQ(g_dbus_message_get_reply_serial(tRefusal.pMessage.get()), 77u);
    EXPECT_EQ(tRefusal.eFlags, G_DBUS_SEND_MESSAGE_FLAGS_NONE);
    EXPECT_EQ(tRefusal.uLocks, 0u) << "the error passes this filter, too";
    ExpectQuestion(Last(), ToBus(THE_BUS, "GetConnectionUnixUser", "(':1.1',)"));
    answer(2, g_variant_new("(u)", 1000u));
    EXPECT_EQ(
        LoggedLines("BusReport.cpp").back().strText,
        "caller :1.1 (user 1000) is refused: a call has 8193 bytes of arguments, 8192 are taken");
}

TEST_F(ABusFilter, SendsNoErrorToWhoWantsNoAnswer)
{
    install();
    EXPECT_EQ(incoming(MakeCall(":1.1", ARGUMENT_BYTES + 1, false)), nullptr);
    ASSERT_THAT(Filter().sent, SizeIs(2));
    ExpectQuestion(Last(), ToBus(THE_BUS, "GetConnectionUnixUser", "(':1.1',)"));
}

TEST_F(ABusFilter, DropsCallsThatWantNoAnswerBeyondTheirNumber)
{
    install();
    for (std::size_t i = 0; i < UNANSWERED_CALLS; ++i) {
        ASSERT_NE(incoming(MakeCall(":1.1", 0, false)), nullptr) << i;
    }
    EXPECT_EQ(incoming(MakeCall(":1.1", 0, false)), nullptr);
    EXPECT_NE(incoming(MakeCall(":1.1")), nullptr) << "the bus counts those that want one";
    EXPECT_NE(incoming(MakeCall(":1.2", 0, false)), nullptr);
    answer(2, g_variant_new("(u)", 1000u));
    EXPECT_EQ(LoggedLines("BusReport.cpp").back().strText,
              "caller :1.1 (user 1000) is refused: 512 of its calls that want no answer wait");
    serveAll();
    EXPECT_NE(incoming(MakeCall(":1.1", 0, false)), nullptr) << "they have been served";
    serveAll();
}

TEST_F(ABusFilter, LetsSignalsPassUnseen)
{
    install();
    BusMessagePtr pSignal(g_dbus_message_new_signal("/a", "a.b", "c"));
    g_dbus_message_set_sender(pSignal.get(), ":1.1");
    EXPECT_NE(incoming(std::move(pSignal)), nullptr);
    EXPECT_THAT(Filter().sent, SizeIs(1));
}

TEST_F(ABusFilter, TakesAnswersToItsQuestionsAndNoOthers)
{
    install();
    EXPECT_NE(answer(0, nullptr, ":1.9"), nullptr) << "it was not asked";
    EXPECT_EQ(unread(0, 0), nullptr);
    EXPECT_NE(unread(0, 0), nullptr) << "the question is answered";

    for (const guint32 uSerial : {guint32(4), FIRST_SERIAL}) {
        BusMessagePtr pReply = MakeReply(":1.7", 100);
        g_dbus_message_set_reply_serial(pReply.get(), uSerial);
        g_dbus_message_set_sender(pReply.get(), THE_BUS);
        EXPECT_NE(incoming(std::move(pReply)), nullptr) << uSerial;
    }
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(ABusFilter, HoldsAReplyAndReleasesItPastItself)
{
    install();
    EXPECT_NE(outgoing(MakeReply(":1.1", WINDOW_BYTES - HEADER_BYTES)), nullptr);
    ExpectQuestion(Last(), ToBus(STATS, "GetConnectionStats", "(':1.1',)"));
    BusMessagePtr pReply = MakeReply(":1.1", 100);
    GDBusMessage* pHeld = pReply.get();
    EXPECT_EQ(outgoing(std::move(pReply)), nullptr);
    ASSERT_THAT(Filter().sent, SizeIs(2));

    EXPECT_EQ(unread(1, 0), nullptr);
    ASSERT_THAT(Filter().sent, SizeIs(3));
    EXPECT_EQ(Last().pMessage.get(), pHeld);
    EXPECT_EQ(Last().eFlags, G_DBUS_SEND_MESSAGE_FLAGS_PRESERVE_SERIAL);
    EXPECT_EQ(Last().uLocks, 1u);
    // The message passes the filter again on the bus library's thread and is not counted twice.
    BusMessagePtr pAgain(static_cast<GDBusMessage*>(g_object_ref(pHeld)));
    EXPECT_NE(outgoing(MakeReply(":1.1", WINDOW_BYTES - HEADER_BYTES - HEADER_BYTES - 100)),
              nullptr);
    EXPECT_EQ(outgoing(std::move(pAgain)).get(), pHeld);
}

TEST_F(ABusFilter, SeesRepliesAndErrorsToACallerAlone)
{
    install();
    const std::size_t uBytes = 2 * WINDOW_BYTES;
    for (int i = 0; i < 2; ++i) {
        BusMessagePtr pSignal = MakeReply(":1.1", uBytes);
        g_dbus_message_set_message_type(pSignal.get(), G_DBUS_MESSAGE_TYPE_SIGNAL);
        EXPECT_NE(outgoing(std::move(pSignal)), nullptr);
        BusMessagePtr pCall = MakeReply(":1.1", uBytes);
        g_dbus_message_set_message_type(pCall.get(), G_DBUS_MESSAGE_TYPE_METHOD_CALL);
        EXPECT_NE(outgoing(std::move(pCall)), nullptr);
        BusMessagePtr pToNobody = MakeReply(":1.1", uBytes);
        g_dbus_message_set_destination(pToNobody.get(), nullptr);
        EXPECT_NE(outgoing(std::move(pToNobody)), nullptr);
    }
    EXPECT_THAT(LoggedLines(), IsEmpty());
    EXPECT_THAT(Filter().sent, SizeIs(1));
    EXPECT_NE(outgoing(MakeReply(":1.1", uBytes)), nullptr);
    BusMessagePtr pError = MakeReply(":1.1", 100);
    g_dbus_message_set_message_type(pError.get(), G_DBUS_MESSAGE_TYPE_ERROR);
    g_dbus_message_set_error_name(pError.get(), LIMITS);
    EXPECT_EQ(outgoing(std::move(pError)), nullptr);
}

TEST_F(ABusFilter, AsksCallersWhereTheBusDoesNotTell)
{
    install();
    fails(0, DENIED);
    EXPECT_NE(outgoing(MakeReply(":1.1", 100)), nullptr);
    ASSERT_THAT(Filter().sent, SizeIs(2));
    ExpectQuestion(Last(), ":1.1 / org.freedesktop.DBus.Peer Ping -");
    // The bus gave up the ping, so the filter asks whether the caller still has its name.
    fails(1, "org.freedesktop.DBus.Error.NoReply");
    ASSERT_THAT(Filter().sent, SizeIs(3));
    ExpectQuestion(Last(), ToBus(THE_BUS, "GetNameOwner", "(':1.1',)"));
}

TEST_F(ABusFilter, WatchesTheBusAndAsksItForAProofWhereNobodyTells)
{
    install();
    fails(0, DENIED);
    outgoing(MakeReply(":1.1", 100));
    fails(1, DENIED);
    ASSERT_THAT(Filter().sent, SizeIs(3));
    ExpectQuestion(
        Last(),
        ToBus(THE_BUS, "AddMatch",
              "(\"type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged'\",)"));
    EXPECT_EQ(answer(2, nullptr), nullptr);

    for (std::size_t uSent = 0; uSent <= UNKNOWN_BYTES; uSent += 24 * MIB) {
        EXPECT_NE(outgoing(MakeReply(":1.1", 24 * MIB)), nullptr);
    }
    EXPECT_EQ(Filter().timers.back(), 0u) << "the first proof is due at once";
    pass(PROOF_MS);
    ASSERT_THAT(Filter().sent, SizeIs(4));
    ExpectQuestion(Last(), ToBus(THE_BUS, "GetId", "-"));
}

TEST_F(ABusFilter, HasOneTimerForTheEarliestTime)
{
    install();
    incoming(MakeCall(":1.1", ARGUMENT_BYTES + 1));
    // The silence of the bus and the end of the refusals are due at the same time, so one timer serves both.
    EXPECT_THAT(Filter().timers, ElementsAre(static_cast<guint>(BUS_SILENT_MS)));
    outgoing(MakeReply(":1.2", WINDOW_BYTES));
    outgoing(MakeReply(":1.2", 100));
    EXPECT_THAT(Filter().timers,
                ElementsAre(static_cast<guint>(BUS_SILENT_MS), static_cast<guint>(FIRST_PAUSE_MS)));
    // The remaining timer is the second one. It runs and is made again for the next due time.
    unread(0, 0);
    pass(FIRST_PAUSE_MS);
    ASSERT_THAT(Filter().timers, SizeIs(3));
    EXPECT_EQ(Filter().timers.back(), static_cast<guint>(REPORT_MS - FIRST_PAUSE_MS));
}

TEST_F(ABusFilter, RunsATimerAtOnceWhoseTimeIsOver)
{
    install();
    unread(0, 0);
    incoming(MakeCall(":1.1", ARGUMENT_BYTES + 1));
    EXPECT_EQ(answer(2, g_variant_new("(u)", 1000u)), nullptr);
    // The process slept past the end of the refusals.
    pass(3 * REFUSALS_OVER_MS);
    EXPECT_EQ(LoggedLines("BusReport.cpp").back().strText,
              "caller :1.1 (user 1000) is no longer refused: 1 calls were");
    EXPECT_THAT(Filter().timers, SizeIs(1)) << "nothing is left to wait for";
    EXPECT_EQ(g_main_context_pending(nullptr), FALSE);
}

TEST_F(ABusFilter, RunsNoTimerThatWasReplacedMeanwhile)
{
    install();
    incoming(MakeCall(":1.1", ARGUMENT_BYTES + 1));
    Filter().bForeignSource = true;
    pass(BUS_SILENT_MS);
    EXPECT_THAT(Filter().signals, IsEmpty());
    EXPECT_THAT(Filter().timers, SizeIs(1));
}

TEST_F(ABusFilter, EndsTheServiceWhenTheBusIsSilent)
{
    install();
    incoming(MakeCall(":1.1", ARGUMENT_BYTES + 1));
    pass(BUS_SILENT_MS - 1);
    EXPECT_THAT(Filter().signals, IsEmpty());
    EXPECT_EQ(Filter().timers.back(), 1u) << "again, for the rest";
    pass(1);
    EXPECT_THAT(Filter().signals, ElementsAre(SIGTERM));
}

TEST_F(ABusFilter, HasAClockThatIsNeverZero)
{
    // A question of the time 0 would count as none, and the silence of the bus would not end the service.
    Filter().iMicroseconds = 1000;
    install();
    incoming(MakeCall(":1.1", ARGUMENT_BYTES + 1));
    pass(BUS_SILENT_MS);
    EXPECT_THAT(Filter().signals, ElementsAre(SIGTERM));
}

TEST_F(ABusFilter, LetsAReleasedReplyPass)
{
    install();
    for (int i = 0; i < 2; ++i) {
        outgoing(MakeReply(":1.1", 2 * WINDOW_BYTES));
    }
    unread(1, 0);
    ASSERT_THAT(Filter().sent, SizeIs(3));
    EXPECT_TRUE(Last().bReleased);
    EXPECT_FALSE(Filter().sent.front().bReleased);
    const BusMessagePtr pReleased(static_cast<GDBusMessage*>(g_object_ref(Last().pMessage.get())));
    EXPECT_EQ(outgoing(BusMessagePtr(static_cast<GDBusMessage*>(g_object_ref(pReleased.get())))),
              pReleased);
    EXPECT_THAT(Filter().sent, SizeIs(3)) << "nor is it counted twice";
}

TEST_F(ABusFilter, GivesMemoryBackOnceMuchHasWaited)
{
    install();
    outgoing(MakeReply(":1.1", WINDOW_BYTES));
    outgoing(MakeReply(":1.1", 2 * GIVE_BACK_BYTES));
    unread(1, 0);
    pass(LONGEST_PAUSE_MS - 1);
    EXPECT_EQ(Filter().uTrims, 0u);
    pass(1);
    EXPECT_EQ(Filter().uTrims, 1u);
    unread(0, 0);
    pass(LONGEST_PAUSE_MS);
    EXPECT_EQ(Filter().uTrims, 1u);
}

TEST_F(ABusFilter, LetsAMessagePassForWhichThereIsNoMemory)
{
    install();
    const std::string strLong = ":1." + std::string(200, '1');
    FailLargeAllocation(strLong.size(), 1);
    EXPECT_NE(incoming(MakeCall(strLong)), nullptr);
    EXPECT_EQ(
        LoggedLines(),
        These(FILTER.error("OnMessage", "no memory for the flow control, a message passes it by")));
    EXPECT_NE(incoming(MakeCall(strLong)), nullptr);
    EXPECT_THAT(Filter().sent, SizeIs(2)) << "the next one is seen";
}

TEST_F(ABusFilter, GoesOnAfterATimerWithoutMemory)
{
    install();
    unread(0, 0);
    const std::string strLong = ":1." + std::string(200, '1');
    incoming(MakeCall(strLong, ARGUMENT_BYTES + 1));
    answer(2, g_variant_new("(u)", 1000u));
    fake::platform().clearLog();
    FailLargeAllocation(strLong.size(), 1);
    pass(REFUSALS_OVER_MS);
    EXPECT_EQ(LoggedLines(),
              These(FILTER.error("OnTimer", "no memory for the flow control's timer")));
    fake::platform().clearLog();
    EXPECT_EQ(Filter().timers.back(), LONGEST_PAUSE_MS) << "what was due is done later";
    pass(LONGEST_PAUSE_MS);
    EXPECT_THAT(LoggedLines(), SizeIs(1)) << "the caller is no longer refused";
}

TEST_F(ABusFilter, TakesItsTimerWithIt)
{
    install();
    incoming(MakeCall(":1.1", ARGUMENT_BYTES + 1));
    EXPECT_EQ(g_main_context_pending(nullptr), TRUE);
    end();
    EXPECT_EQ(g_main_context_pending(nullptr), FALSE);
}

TEST_F(ABusFilter, HasSerialsThatFollowNoSequence)
{
    install();
    for (int i = 0; i < 20; ++i) {
        incoming(MakeCall(":1." + std::to_string(i)));
    }
    unsigned uSteps = 0;
    for (std::size_t i = 1; i < Filter().sent.size(); ++i) {
        const guint32 uStep = g_dbus_message_get_serial(Filter().sent[i].pMessage.get()) -
                              g_dbus_message_get_serial(Filter().sent[i - 1].pMessage.get());
        uSteps += uStep < 0x1000 ? 1 : 0;
    }
    EXPECT_LT(uSteps, 3u);
}

}  // namespace
