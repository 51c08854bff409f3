// bus_flow_steps_test.cpp - the flow control's steps, whole and in order: questions, releases, requests of the
// timer and log records.
#include "fake_bus.h"

using namespace BusLimits;

namespace {

constexpr const char* DENIED = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* NO_OWNER = "org.freedesktop.DBus.Error.NameHasNoOwner";
constexpr const char* NO_REPLY = "org.freedesktop.DBus.Error.NoReply";
constexpr const char* CALLERS_ASKED =
    "the bus does not tell what its clients have not read "
    "(org.freedesktop.DBus.Error.AccessDenied), "
    "the callers are asked: its policy should allow this user GetConnectionStats";
constexpr const char* NOBODY_ASKED =
    "neither the bus nor its clients tell what is not read "
    "(org.freedesktop.DBus.Error.AccessDenied), "
    "a caller that reads nothing can stop the service: the bus policy should allow this user "
    "GetConnectionStats and Ping";
constexpr std::size_t ORDINARY = 400;
constexpr std::size_t ASK_BYTES = AskBytes(WINDOW_BYTES);

using Given = std::vector<std::string>;

/// Fixture: a caller with a full window, and one reply that waits for it.
class ASlowCaller : public ABusFlow {
protected:
    ASlowCaller()
    {
        reply(":1.1", WINDOW_BYTES);
        reply(":1.1", ORDINARY);
    }
};

TEST_F(ASlowCaller, IsAskedAboutOnceAndLookedAtSoon)
{
    EXPECT_EQ(steps(), (Given{"unread :1.1", "wake in 10000", "wake in 2"}));
}

TEST_F(ASlowCaller, IsAskedAboutAfterPausesThatDouble)
{
    steps();
    unread(":1.1", WINDOW_BYTES);
    EXPECT_EQ(steps(), (Given{"wake in 2"}));
    pass(FIRST_PAUSE_MS);
    EXPECT_EQ(steps(), (Given{"unread :1.1", "wake in 10000", "wake in 998", "wake in 1998",
                              "wake in 10000"}));
    unread(":1.1", WINDOW_BYTES);
    EXPECT_EQ(steps(), (Given{"wake in 4"}));
    pass(2 * FIRST_PAUSE_MS);
    EXPECT_EQ(steps(), (Given{"unread :1.1", "wake in 10000", "wake in 994", "wake in 1994",
                              "wake in 10000"}));
    unread(":1.1", WINDOW_BYTES - 1);
    EXPECT_EQ(steps(), (Given{"wake in 2"})) << "it reads: the first pause again";
}

TEST_F(ASlowCaller, GetsWhatWaitedOnceItHasRead)
{
    steps();
    pass(FIRST_PAUSE_MS);
    EXPECT_EQ(steps(), (Given{"wake in 998", "wake in 1998", "wake in 9998"}));
    unread(":1.1", 0);
    EXPECT_EQ(steps(), (Given{"release 2"}));
    pass(60000);
    EXPECT_EQ(steps(), Given());
}

TEST_F(ASlowCaller, IsAskedAboutBehindTheRepliesThatWereReleased)
{
    reply(":1.1", 2 * WINDOW_BYTES);
    reply(":1.1", 2 * WINDOW_BYTES);
    steps();
    unread(":1.1", 0);
    EXPECT_EQ(steps(), (Given{"release 2", "unread :1.1", "wake in 10000"}));
    EXPECT_TRUE(unread(":1.1", 0));
    EXPECT_EQ(steps(), (Given{"release 3", "unread :1.1", "wake in 10000"}));
}

TEST_F(ASlowCaller, IsReportedWithItsUserAndWhenItGoesOn)
{
    pass(REPORT_MS - 1);
    steps();
    pass(1);
    EXPECT_EQ(steps(), (Given{"user :1.1", "wake in 10000", "wake in 1000", "wake in 9000"}));
    user(":1.1", 1000);
    EXPECT_EQ(steps(), (Given{"caller :1.1 (user 1000) is held back: it has not read 1048576 "
                              "bytes, 1 answers wait for it"}));
    pass(1000);
    EXPECT_EQ(steps(), (Given{"wake in 8000"}));
    unread(":1.1", 0);
    EXPECT_EQ(
        steps(),
        (Given{"release 2",
               "caller :1.1 (user 1000) goes on: 1 answers had to wait, 0 of them were refused"}));
}

TEST_F(ASlowCaller, IsReportedWhenItLeaves)
{
    reply(":1.1", ORDINARY);
    pass(REPORT_MS);
    user(":1.1", 1000);
    steps();
    fails(BusQuestion::UNREAD, ":1.1", NO_OWNER);
    EXPECT_EQ(
        steps(),
        (Given{"caller :1.1 (user 1000) has left: 2 answers that waited for it are dropped"}));
    pass(60000);
    EXPECT_EQ(steps(), Given());
}

TEST_F(ASlowCaller, IsNotReportedWhenItGoesOnBeforeItsUserIsKnown)
{
    pass(REPORT_MS);
    unread(":1.1", 0);
    steps();
    user(":1.1", 1000);
    EXPECT_EQ(steps(), Given());
    pass(60000);
    steps();
    reply(":1.1", 2 * WINDOW_BYTES);
    EXPECT_EQ(open(BusQuestion::USER), 0u);
    pass(REPORT_MS);
    EXPECT_EQ(open(BusQuestion::USER), 1u) << "the next time it is";
}

TEST_F(ASlowCaller, EndsTheServiceTogetherWithASilentBus)
{
    steps();
    pass(BUS_SILENT_MS);
    EXPECT_EQ(steps(),
              (Given{"wake in 998", "wake in 1998", "wake in 9998", "user :1.1", "wake in 10000",
                     "wake in 1000", "wake in 9000", "wake in 8000",
                     Red("the bus has not answered for 10000 ms, the service ends"), "end"}));
    m_oFlow.Timer();
    EXPECT_EQ(steps(), Given()) << "once";
}

TEST_F(ABusFlow, StartsWithAQuestionAboutItself)
{
    m_oFlow.Start(":1.0");
    EXPECT_EQ(steps(), (Given{"unread :1.0"}));
    EXPECT_TRUE(unread(":1.0", 0));
    EXPECT_EQ(steps(), Given());
    reply(":1.1", ORDINARY);
    EXPECT_EQ(steps(), Given());
}

TEST_F(ABusFlow, AsksOnceForTheUserOfEachCaller)
{
    m_oBus.bConnected = false;
    m_oFlow.Called(":1.1");
    m_oBus.bConnected = true;
    EXPECT_EQ(steps(), Given());
    m_oFlow.Called(":1.1");
    m_oFlow.Called(":1.1");
    m_oFlow.Called(":1.2");
    EXPECT_EQ(steps(), (Given{"user :1.1", "user :1.2"}));
    user(":1.1", 1000);
    fails(BusQuestion::USER, ":1.2", NO_OWNER);
    EXPECT_EQ(steps(), (Given{"caller :1.1 is of user 1000"}));
    pass(60000);
    EXPECT_EQ(steps(), Given());
}

TEST_F(ABusFlow, ReportsRefusedCallsAndTheirEnd)
{
    m_oFlow.RefusedCall(":1.1", 9000);
    EXPECT_EQ(steps(), (Given{"user :1.1", "wake in 10000", "wake in 10000"}));
    user(":1.1", 1000);
    EXPECT_EQ(steps(), (Given{"caller :1.1 (user 1000) is refused: a call has 9000 bytes of "
                              "arguments, 8192 are taken"}));
    pass(REFUSALS_OVER_MS - 1);
    m_oFlow.RefusedCall(":1.1", 9000);
    EXPECT_EQ(steps(), Given());
    pass(1);
    EXPECT_EQ(steps(), (Given{"wake in 9999"}));
    pass(REFUSALS_OVER_MS);
    EXPECT_EQ(steps(), (Given{"caller :1.1 (user 1000) is no longer refused: 2 calls were"}));
}

TEST_F(ABusFlow, TriesAgainASecondAfterAQuestionThatCouldNotBeSent)
{
    m_oBus.bConnected = false;
    reply(":1.1", WINDOW_BYTES);
    EXPECT_EQ(steps(), (Given{"wake in 1000"}));
    EXPECT_FALSE(reply(":1.1", ORDINARY));
    EXPECT_EQ(steps(), (Given{"wake in 2"}));
    pass(LONGEST_PAUSE_MS - 1);
    EXPECT_EQ(steps(), (Given{"wake in 998", "wake in 998", "wake in 1998"}));
    m_oBus.bConnected = true;
    pass(1);
    EXPECT_EQ(steps(), (Given{"unread :1.1", "wake in 10000", "user :1.1", "wake in 10000",
                              "wake in 1000", "wake in 10000"}));
}

TEST_F(ABusFlow, AsksAboutOthersWhoseUnreadBytesBlockAReply)
{
    EXPECT_TRUE(reply(":1.1", UNREAD_BYTES));
    unread(":1.1", UNREAD_BYTES);
    pass(LONGEST_PAUSE_MS);
    steps();
    EXPECT_FALSE(reply(":1.2", LARGE_BYTES + 1));
    EXPECT_EQ(steps(), (Given{"wake in 2", "unread :1.1", "wake in 10000"}));
    unread(":1.1", UNREAD_BYTES);
    EXPECT_EQ(steps(), Given());
    pass(LONGEST_PAUSE_MS);
    EXPECT_EQ(steps(),
              (Given{"wake in 998", "wake in 998", "wake in 1000", "wake in 1998", "unread :1.2",
                     "wake in 10000", "user :1.2", "wake in 10000", "unread :1.1", "wake in 10000",
                     "wake in 1000", "wake in 1000", "wake in 10000"}));
    unread(":1.1", 0);
    EXPECT_EQ(steps(), (Given{"release 2"}));
}

TEST_F(ABusFlow, GivesMemoryBackASecondAfterALargeReplyThatWaited)
{
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", GIVE_BACK_BYTES);
    pass(LONGEST_PAUSE_MS - 1);
    steps();
    pass(1);
    EXPECT_EQ(steps(),
              (Given{"user :1.1", "wake in 10000", "wake in 1000", "wake in 1000", "wake in 9000"}))
        << "something waits still";
    unread(":1.1", 0);
    user(":1.1", 1000);
    steps();
    pass(LONGEST_PAUSE_MS);
    EXPECT_EQ(steps(), (Given{"give back"}));
    pass(60000);
    EXPECT_EQ(steps(), Given());
}

TEST_F(ABusFlow, GivesNoMemoryBackForExactlySoMuch)
{
    reply(":1.1", WINDOW_BYTES);
    EXPECT_FALSE(reply(":1.1", GIVE_BACK_BYTES - HELD_EXTRA_BYTES));
    unread(":1.1", 0);
    pass(60000);
    EXPECT_EQ(m_oBus.uGivenBack, 0u);
}

TEST_F(ABusFlow, AsksAtOnceAboutACallerWithOneUnreadByte)
{
    reply(":1.1", ASK_BYTES + ORDINARY);
    unread(":1.1", 1);
    reply(":1.2", UNREAD_BYTES - ORDINARY);
    unread(":1.2", UNREAD_BYTES - ORDINARY);
    steps();
    EXPECT_FALSE(reply(":1.1", LARGE_BYTES + 1));
    EXPECT_EQ(steps(), (Given{"wake in 2", "unread :1.1", "wake in 10000"}));
}

TEST_F(ABusFlow, WeighsAnErrorAndReportsHowManyThereWere)
{
    // Header, and a text of 122 characters with its NUL.
    constexpr std::size_t ERROR_BYTES = HEADER_BYTES + 123;
    reply(":1.1", WINDOW_BYTES);
    EXPECT_FALSE(reply(":1.1", HELD_BYTES));
    pass(REPORT_MS);
    user(":1.1", 1000);
    unread(":1.1", WINDOW_BYTES - ERROR_BYTES + 1);
    EXPECT_TRUE(m_oBus.released.empty());
    steps();
    pass(FIRST_PAUSE_MS);
    unread(":1.1", WINDOW_BYTES - ERROR_BYTES);
    EXPECT_EQ(m_oBus.errors, Given{"org.freedesktop.DBus.Error.LimitsExceeded"});
    EXPECT_EQ(steps().back(),
              "caller :1.1 (user 1000) goes on: 1 answers had to wait, 1 of them "
              "were refused");
}

TEST_F(ABusFlow, SwitchesToPingsByAnAnswerAboutAForgottenCaller)
{
    reply(":1.1", WINDOW_BYTES);
    reply(":1.2", WINDOW_BYTES);
    steps();
    fails(BusQuestion::UNREAD, ":1.1", DENIED);
    EXPECT_EQ(steps(), Given());
    reply(":1.3", ORDINARY);
    EXPECT_EQ(steps(), (Given{"ping :1.3", "wake in 1000"}));
    fails(BusQuestion::UNREAD, ":1.2", DENIED);
    reply(":1.4", ORDINARY);
    EXPECT_EQ(steps(), Given());
}

/// Fixture: the bus refuses to tell, and no caller has been pinged yet.
class ABusOfPings : public ABusFlow {
protected:
    ABusOfPings()
    {
        m_oFlow.Start(":1.0");
        fails(BusQuestion::UNREAD, ":1.0", DENIED);
        steps();
    }
    void allowed()
    {
        reply(":1.7", ORDINARY);
        pong(":1.7");
        steps();
    }
};

TEST_F(ABusOfPings, PingsTheFirstCallerAtOnceAndReportsItsAnswer)
{
    reply(":1.7", ORDINARY);
    EXPECT_EQ(steps(), (Given{"ping :1.7", "wake in 1000"}));
    reply(":1.8", ORDINARY);
    EXPECT_EQ(steps(), Given()) << "only the first one";
    pong(":1.7");
    EXPECT_EQ(steps(), (Given{Red(CALLERS_ASKED)}));
    pass(60000);
    EXPECT_EQ(steps(), Given());
}

TEST_F(ABusOfPings, ReportsAPingThatIsNotRefusedWithinASecond)
{
    reply(":1.7", ORDINARY);
    steps();
    pass(PING_REPORT_MS);
    EXPECT_EQ(steps(), (Given{Red(CALLERS_ASKED)}));
    pong(":1.7");
    EXPECT_EQ(steps(), Given());
}

TEST_F(ABusOfPings, WakesForTheReportOfPingsBehindEachTimer)
{
    reply(":1.7", WINDOW_BYTES);
    reply(":1.7", ORDINARY);
    steps();
    pass(FIRST_PAUSE_MS);
    EXPECT_EQ(steps(), (Given{"wake in 998", "wake in 1998", "wake in 998"}));
}

TEST_F(ABusOfPings, PingsACallerBehindTheRepliesThatWereReleased)
{
    allowed();
    reply(":1.1", WINDOW_BYTES);
    for (int i = 0; i < 3; i++) {
        reply(":1.1", WIDEST_WINDOW_BYTES);
    }
    EXPECT_EQ(steps(), (Given{"ping :1.1", "wake in 2", "wake in 2", "wake in 2"}));
    pong(":1.1");
    EXPECT_EQ(steps(), (Given{"release 3", "ping :1.1"}));
    pong(":1.1");
    EXPECT_EQ(steps(), (Given{"release 4", "ping :1.1"}));
}

TEST_F(ABusOfPings, PingsACallerThatReadsWithoutAPause)
{
    allowed();
    reply(":1.1", WINDOW_BYTES - ORDINARY);
    reply(":1.1", ORDINARY);
    reply(":1.1", 2 * WINDOW_BYTES);
    EXPECT_EQ(steps(), (Given{"ping :1.1", "wake in 2"}));
    pong(":1.1");
    EXPECT_EQ(steps(), (Given{"ping :1.1"}))
        << "what was sent behind the ping blocks the next reply";
    pong(":1.1");
    EXPECT_EQ(steps(), (Given{"release 4"}));
}

TEST_F(ABusOfPings, PingsACallerAgainAfterAPassingError)
{
    allowed();
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    steps();
    fails(BusQuestion::PING, ":1.1", "org.freedesktop.DBus.Error.LimitsExceeded");
    EXPECT_EQ(steps(), (Given{"wake in 2"}));
    pass(FIRST_PAUSE_MS);
    EXPECT_EQ(steps(), (Given{"ping :1.1", "wake in 998", "wake in 1998"}));
}

TEST_F(ABusOfPings, AsksTheBusForACallerThatDoesNotAnswer)
{
    allowed();
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    reply(":1.2", WINDOW_BYTES);
    steps();
    fails(BusQuestion::PING, ":1.1", NO_REPLY);
    fails(BusQuestion::PING, ":1.2", NO_REPLY);
    EXPECT_EQ(steps(), (Given{"owner :1.1", "wake in 10000", "owner :1.2", "wake in 10000"}));
    owner(":1.1");
    EXPECT_EQ(steps(), (Given{"wake in 1000"}));
    owner(":1.2");
    EXPECT_EQ(steps(), Given()) << "nothing waits for it";
    reply(":1.2", ORDINARY);
    EXPECT_EQ(steps(), (Given{"wake in 2", "ping :1.2"}));
}

TEST_F(ABusOfPings, ForgetsACallerThatTheBusDoesNotKnow)
{
    allowed();
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    fails(BusQuestion::PING, ":1.1", NO_REPLY);
    steps();
    fails(BusQuestion::OWNER, ":1.1", NO_OWNER);
    EXPECT_EQ(steps(), Given());
    EXPECT_TRUE(reply(":1.1", ORDINARY)) << "nothing waits any more";
    EXPECT_EQ(steps(), Given());
}

TEST_F(ABusOfPings, AsksWhetherTheOldestOfTooManyCallersIsThere)
{
    allowed();
    for (std::size_t i = 0; i < KEPT_CALLERS; i++) {
        reply(":2." + std::to_string(i), ORDINARY);
        pass(1);
    }
    EXPECT_EQ(steps(), Given());
    reply(":3.1", ORDINARY);
    EXPECT_EQ(steps(), (Given{"owner :2.0", "wake in 10000"}));
    reply(":3.1", ORDINARY);
    EXPECT_EQ(steps(), Given()) << "it is known";
}

TEST_F(ABusOfPings, SendsEverythingOnceCallersMayNotBeAsked)
{
    for (const char* szName : {":1.1", ":1.2", ":1.3", ":1.4", ":1.5", ":1.6"}) {
        reply(szName, WINDOW_BYTES);
    }
    fails(BusQuestion::PING, ":1.6", NO_REPLY);
    reply(":1.1", ORDINARY);
    reply(":1.1", ORDINARY);
    steps();
    fails(BusQuestion::PING, ":1.1", DENIED);
    EXPECT_EQ(steps(), (Given{Red(NOBODY_ASKED), "watch", "release 7", "release 8"}));
    fails(BusQuestion::PING, ":1.2", DENIED);
    EXPECT_EQ(steps(), Given()) << "once";
    // Answers about callers that are forgotten now.
    fails(BusQuestion::PING, ":1.3", NO_REPLY);
    fails(BusQuestion::PING, ":1.4", NO_OWNER);
    pong(":1.5");
    owner(":1.6");
    EXPECT_EQ(steps(), Given());
    pass(PING_REPORT_MS);
    EXPECT_EQ(steps(), (Given{"wake in 9998"}));
}

/// Fixture: nothing tells what is read, and the bytes sent have reached their limit.
class AnUnprovenBus : public ABusOfPings {
protected:
    AnUnprovenBus()
    {
        reply(":1.7", ORDINARY);
        fails(BusQuestion::PING, ":1.7", DENIED);
        answer(BusQuestion::WATCH, "", BusMessagePtr(g_dbus_message_new()));
        for (std::size_t i = 0; i < UNKNOWN_BYTES / MIB; i++) {
            reply(":1.1", MIB);
        }
        pass(10000);
        steps();
    }
    void prove() { answer(BusQuestion::PROOF, "", BusMessagePtr(g_dbus_message_new())); }
};

TEST_F(AnUnprovenBus, IsAskedForAProofByTheNextByte)
{
    reply(":1.1", HEADER_BYTES + 1);
    EXPECT_EQ(steps(), (Given{"wake in 0"}));
    pass(0);
    EXPECT_EQ(steps(), (Given{"proof", "wake in 10000"}));
    prove();
    EXPECT_EQ(steps(), Given());
    reply(":1.1", ORDINARY);
    EXPECT_EQ(steps(), (Given{"wake in 1000"})) << "a second after the last answer";
    reply(":1.1", ORDINARY);
    EXPECT_EQ(steps(), Given()) << "one request is enough";
    pass(PROOF_MS);
    EXPECT_EQ(steps(), (Given{"proof", "wake in 10000"}));
    reply(":1.1", ORDINARY);
    EXPECT_EQ(steps(), Given()) << "a proof is on its way";
    prove();
    EXPECT_EQ(steps(), (Given{"wake in 1000"}));
}

TEST_F(AnUnprovenBus, IsAskedAgainASecondAfterAQuestionThatCouldNotBeSent)
{
    reply(":1.1", HEADER_BYTES + 1);
    m_oBus.bConnected = false;
    steps();
    pass(0);
    EXPECT_EQ(steps(), (Given{"wake in 1000"}));
    m_oBus.bConnected = true;
    pass(PROOF_MS - 1);
    EXPECT_EQ(steps(), Given());
    pass(1);
    EXPECT_EQ(steps(), (Given{"proof", "wake in 10000"}));
}

}  // namespace
