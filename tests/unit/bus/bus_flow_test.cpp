// bus_flow_test.cpp - the decision for each reply: send, hold, or turn into an error.
#include "fake_bus.h"

#include <gmock/gmock.h>

using namespace BusLimits;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

namespace {

constexpr const char* LIMITS = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* NO_OWNER = "org.freedesktop.DBus.Error.NameHasNoOwner";
constexpr std::size_t ORDINARY = 400;
constexpr std::size_t ASK_BYTES = AskBytes(WINDOW_BYTES);
// One of 32 parts of the bytes that may wait: 1 MiB, unless the totals are lowered.
constexpr std::size_t PART = HELD_BYTES / 32;

TEST_F(ABusFlow, AsksNobodyAboutACallerThatIsOwedLittle)
{
    for (std::size_t uSent = 0; uSent + ORDINARY <= ASK_BYTES; uSent += ORDINARY) {
        ASSERT_TRUE(reply(":1.1", ORDINARY));
    }
    EXPECT_THAT(m_oBus.asked, IsEmpty());
    EXPECT_FALSE(m_oBus.iWakeAt) << "nor does it wake up";
}

TEST_F(ABusFlow, AsksTheBusOnceBeyondHalfAWindow)
{
    EXPECT_TRUE(reply(":1.1", ASK_BYTES));
    EXPECT_TRUE(reply(":1.1", ORDINARY));
    EXPECT_TRUE(reply(":1.1", ORDINARY));
    EXPECT_EQ(open(BusQuestion::UNREAD), 1u);
    EXPECT_TRUE(unread(":1.1", ORDINARY + 1));
    // Replies sent after the question still count as unread.
    EXPECT_TRUE(reply(":1.1", ASK_BYTES - 2 * ORDINARY - 1));
    EXPECT_EQ(open(BusQuestion::UNREAD), 0u);
    EXPECT_TRUE(reply(":1.1", ORDINARY));
    EXPECT_EQ(open(BusQuestion::UNREAD), 1u);
}

TEST_F(ABusFlow, HoldsWhatIsBeyondTheWindowAndReleasesItInOrder)
{
    EXPECT_TRUE(reply(":1.1", WINDOW_BYTES));
    EXPECT_FALSE(reply(":1.1", 3 * MIB));
    EXPECT_FALSE(reply(":1.1", ORDINARY)) << "it must not overtake";
    EXPECT_TRUE(reply(":1.2", ORDINARY)) << "the others' go out";

    EXPECT_TRUE(unread(":1.1", WINDOW_BYTES));
    EXPECT_THAT(m_oBus.released, IsEmpty());
    pass(FIRST_PAUSE_MS);
    EXPECT_TRUE(unread(":1.1", 0));
    EXPECT_THAT(m_oBus.released, ElementsAre(Pair(":1.1", 2u)))
        << "one larger than the window goes alone";
    pass(FIRST_PAUSE_MS);
    EXPECT_TRUE(unread(":1.1", 0));
    EXPECT_THAT(m_oBus.released, ElementsAre(Pair(":1.1", 2u), Pair(":1.1", 3u)));
    EXPECT_THAT(m_oBus.errors, Each(""));
}

TEST_F(ABusFlow, AsksAgainBehindWhatItReleased)
{
    EXPECT_TRUE(reply(":1.1", WINDOW_BYTES));
    for (int i = 0; i < 3; i++) {
        EXPECT_FALSE(reply(":1.1", WIDEST_WINDOW_BYTES));
    }
    for (std::size_t uReleased = 1; uReleased <= 3; uReleased++) {
        EXPECT_TRUE(unread(":1.1", 0)) << "no time has passed";
        EXPECT_THAT(m_oBus.released, SizeIs(uReleased));
    }
}

TEST_F(ABusFlow, WidensTheWindowOfACallerThatReads)
{
    reply(":1.1", ORDINARY);
    for (const std::size_t uTimes : {1, 2, 4, 8, 8}) {
        const std::size_t uWindow = uTimes * WINDOW_BYTES;
        EXPECT_TRUE(reply(":1.1", uWindow / 2 - ORDINARY));
        EXPECT_EQ(open(BusQuestion::UNREAD), 0u);
        EXPECT_TRUE(reply(":1.1", uWindow / 2));
        EXPECT_FALSE(reply(":1.1", ORDINARY));
        EXPECT_TRUE(unread(":1.1", 0));
    }
    EXPECT_THAT(m_oBus.released, SizeIs(5));
}

TEST_F(ABusFlow, WidensNoWindowWhereMuchIsUnreadByOthers)
{
    reply(":1.1", WINDOW_BYTES);
    unread(":1.1", ORDINARY);
    EXPECT_TRUE(reply(":1.2", PLENTY_BYTES - 2 * WINDOW_BYTES));
    EXPECT_TRUE(reply(":1.1", 2 * WINDOW_BYTES - ORDINARY));
    unread(":1.1", WINDOW_BYTES);
    EXPECT_TRUE(reply(":1.3", WINDOW_BYTES));
    EXPECT_FALSE(reply(":1.1", ORDINARY));
    unread(":1.2", 0);
    EXPECT_THAT(m_oBus.released, ElementsAre(Pair(":1.1", 5u)));
}

TEST_F(ABusFlow, NarrowsTheWindowOfACallerThatStopsReading)
{
    reply(":1.1", WINDOW_BYTES);
    unread(":1.1", ORDINARY);
    reply(":1.1", 2 * WINDOW_BYTES - ORDINARY);
    unread(":1.1", ORDINARY);
    EXPECT_TRUE(reply(":1.1", 4 * WINDOW_BYTES - ORDINARY));
    EXPECT_FALSE(reply(":1.1", WINDOW_BYTES + ORDINARY));
    unread(":1.1", 4 * WINDOW_BYTES);
    pass(LONGEST_PAUSE_MS);
    // The caller reads again: its window doubles, starting from the first size.
    unread(":1.1", WINDOW_BYTES);
    EXPECT_THAT(m_oBus.released, IsEmpty());
}

TEST_F(ABusFlow, AsksLessAndLessOftenAboutACallerThatReadsNothing)
{
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    unsigned uAsked = 0;
    for (int i = 0; i < 1000; i++) {
        if (open(BusQuestion::UNREAD) > 0) {
            ++uAsked;
            unread(":1.1", WINDOW_BYTES);
        }
        pass(10);
    }
    // Pauses of 2, 4, ... 512 ms, then one question a second.
    EXPECT_GE(uAsked, 17u);
    EXPECT_LE(uAsked, 20u);
}

TEST_F(ABusFlow, HoldsAnswersForACallerThatWasStoppedAsLongAsItTakes)
{
    reply(":1.1", WINDOW_BYTES);
    EXPECT_FALSE(reply(":1.1", ORDINARY));
    for (int i = 0; i < 3600; i++) {
        if (open(BusQuestion::UNREAD) > 0) {
            unread(":1.1", WINDOW_BYTES);
        }
        if (open(BusQuestion::USER) > 0) {
            user(":1.1", 1000);
        }
        pass(500);
    }
    pass(LONGEST_PAUSE_MS);
    unread(":1.1", 0);
    EXPECT_THAT(m_oBus.released, SizeIs(1));
    EXPECT_THAT(m_oBus.errors, ElementsAre(""));
}

TEST_F(ABusFlow, DropsWhatWaitsForACallerThatIsGone)
{
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    EXPECT_TRUE(fails(BusQuestion::UNREAD, ":1.1", NO_OWNER));
    pass(60000);
    EXPECT_THAT(m_oBus.released, IsEmpty());
    EXPECT_THAT(m_oBus.asked, IsEmpty()) << "it is forgotten";
}

TEST_F(ABusFlow, LetsAllCallersTogetherLeaveNoMoreUnreadThanTheBusTakes)
{
    std::size_t uSent = 0;
    for (int i = 0; i < 70; i++) {
        uSent += reply(":1." + std::to_string(i), WINDOW_BYTES) ? WINDOW_BYTES : 0;
    }
    EXPECT_EQ(uSent, UNREAD_BYTES);
    for (int i = 2000; i < 2600; i++) {
        uSent += reply(":1." + std::to_string(i), LARGE_BYTES) ? LARGE_BYTES : 0;
    }
    EXPECT_EQ(uSent, UNREAD_BYTES + UNREAD_SMALL_BYTES);
    EXPECT_LT(uSent, 127 * MIB);
}

TEST_F(ABusFlow, LetsSmallRepliesPassThoseThatReadNoLargeOnes)
{
    for (int i = 0; i < 16; i++) {
        EXPECT_TRUE(reply(":1." + std::to_string(i), UNREAD_BYTES / 16));
    }
    EXPECT_FALSE(reply(":1.99", LARGE_BYTES + 1));
    EXPECT_TRUE(reply(":1.98", LARGE_BYTES));
    // One of the callers that did not read has read: there is room again.
    unread(":1.3", 0);
    EXPECT_THAT(m_oBus.released, ElementsAre(Pair(":1.99", 17u)));
}

TEST_F(ABusFlow, AsksAboutEverybodyWhenTheRoomForAllIsUsedUp)
{
    // Each caller is owed too little for the question about unread bytes; it is asked only whether it is
    // still there.
    constexpr std::size_t EACH = UNREAD_BYTES / 128;
    for (int i = 0; i < 128; i++) {
        EXPECT_TRUE(reply(":1." + std::to_string(i), EACH));
        while (!m_oBus.asked.empty()) {
            unread(m_oBus.asked.begin()->second.strName, EACH);
        }
    }
    pass(LONGEST_PAUSE_MS);
    EXPECT_FALSE(reply(":1.999", LARGE_BYTES + 1));
    EXPECT_EQ(open(BusQuestion::UNREAD), QUESTIONS);
}

TEST_F(ABusFlow, MakesTheLargestWaitingRepliesErrorsInTheirPlaces)
{
    EXPECT_TRUE(reply(":1.1", WINDOW_BYTES));
    EXPECT_FALSE(reply(":1.1", ORDINARY));
    EXPECT_FALSE(reply(":1.1", 20 * PART));
    EXPECT_FALSE(reply(":1.1", 10 * PART));
    EXPECT_FALSE(reply(":1.1", 11 * PART)) << "33 parts may wait: the 20 make room";
    std::vector<std::string> expected{"", LIMITS, "", ""};
    while (m_oBus.errors.size() < expected.size()) {
        if (open(BusQuestion::UNREAD) > 0) {
            unread(":1.1", 0);
        }
        pass(FIRST_PAUSE_MS);
    }
    EXPECT_EQ(m_oBus.errors, expected);
    EXPECT_THAT(m_oBus.released,
                ElementsAre(Pair(":1.1", 2u), Pair(":1.1", 3u), Pair(":1.1", 4u), Pair(":1.1", 5u)))
        << "serials and order stay";
}

TEST_F(ABusFlow, TakesTheAnswersOfWhoMakesNoProgressFirst)
{
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", 8 * PART);
    reply(":1.2", WINDOW_BYTES);
    reply(":1.2", 20 * PART);
    pass(STUCK_MS);
    // The second caller reads slowly.
    unread(":1.2", WINDOW_BYTES / 2);
    unread(":1.1", WINDOW_BYTES);
    reply(":1.3", WINDOW_BYTES);
    reply(":1.3", 5 * PART);
    for (int i = 0; i < 20; i++) {
        pass(1000);
        for (const char* szName : {":1.1", ":1.2", ":1.3"}) {
            for (const auto& [uSerial, tQuestion] : m_oBus.asked) {
                if (tQuestion.eKind == BusQuestion::UNREAD && tQuestion.strName == szName) {
                    unread(szName, 0);
                    break;
                }
            }
        }
    }
    EXPECT_THAT(m_oBus.released, ElementsAre(Pair(":1.1", 2u), Pair(":1.2", 4u), Pair(":1.3", 6u)));
    EXPECT_EQ(m_oBus.errors[0], LIMITS);
    EXPECT_EQ(m_oBus.errors[1], "");
    EXPECT_EQ(m_oBus.errors[2], "");
}

TEST_F(ABusFlow, GivesMemoryBackAfterMuchHasWaited)
{
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", GIVE_BACK_BYTES);
    unread(":1.1", 0);
    pass(LONGEST_PAUSE_MS - 1);
    EXPECT_EQ(m_oBus.uGivenBack, 0u) << "the next burst may come at once";
    pass(1);
    EXPECT_EQ(m_oBus.uGivenBack, 1u);
    reply(":1.1", ORDINARY);
    pass(LONGEST_PAUSE_MS);
    unread(":1.1", 0);
    pass(LONGEST_PAUSE_MS);
    EXPECT_EQ(m_oBus.uGivenBack, 1u) << "not for little";
}

TEST_F(ABusFlow, DropsRepliesWhenEvenErrorsWouldBeTooMany)
{
    reply(":1.1", WINDOW_BYTES);
    const std::size_t uMost = HELD_BYTES / (ORDINARY + HELD_EXTRA_BYTES);
    for (std::size_t i = 0; i < uMost + 100; i++) {
        EXPECT_FALSE(reply(":1.1", ORDINARY));
    }
    pass(REPORT_MS);
    user(":1.1", 1000);
    while (open(BusQuestion::UNREAD) > 0) {
        unread(":1.1", 0);
        pass(FIRST_PAUSE_MS);
    }
    EXPECT_EQ(m_oBus.released.size(), uMost);
    EXPECT_EQ(m_oBus.released.back().second, uMost + 1) << "the oldest are kept";
    EXPECT_EQ(texts().back(), "caller :1.1 (user 1000) goes on: " + std::to_string(uMost + 100) +
                                  " answers had to wait, 100 of them were refused");
}

TEST_F(ABusFlow, RemembersNoCallersThatAreGone)
{
    for (int i = 0; i < 1000; i++) {
        pass(1);
        reply(":1." + std::to_string(i), ORDINARY);
        while (!m_oBus.asked.empty()) {
            const std::string strName = m_oBus.asked.begin()->second.strName;
            EXPECT_NE(strName, ":1." + std::to_string(i)) << "the newest stays";
            fails(BusQuestion::UNREAD, strName, NO_OWNER);
        }
    }
    // The 64 callers still remembered take no room from others.
    EXPECT_TRUE(reply(":1.5000", UNREAD_BYTES - KEPT_CALLERS * ORDINARY));
}

// --- the bus does not tell what callers have not read ---

class ABusThatDoesNotTell : public ABusFlow {
protected:
    ABusThatDoesNotTell()
    {
        m_oFlow.Start(":1.0");
        fails(BusQuestion::UNREAD, ":1.0", "org.freedesktop.DBus.Error.AccessDenied");
    }
    /// The answer of the first caller shows that pings are allowed.
    void pingIsAllowed()
    {
        reply(":1.7", ORDINARY);
        EXPECT_TRUE(pong(":1.7"));
    }
};

TEST_F(ABusThatDoesNotTell, AsksTheCallerAndSaysSoOnce)
{
    EXPECT_THAT(texts(), IsEmpty()) << "what callers may be asked is not known yet";
    pingIsAllowed();
    EXPECT_THAT(texts(), ElementsAre(HasSubstr("AccessDenied), the callers are asked")));
    EXPECT_TRUE(reply(":1.1", WINDOW_BYTES));
    EXPECT_FALSE(reply(":1.1", ORDINARY));
    EXPECT_EQ(open(BusQuestion::UNREAD), 0u);
    EXPECT_TRUE(pong(":1.1"));
    EXPECT_THAT(m_oBus.released, SizeIs(1));
    pass(60000);
    EXPECT_THAT(texts(), SizeIs(1));
}

TEST_F(ABusThatDoesNotTell, TakesNoRefusalForLeaveToAsk)
{
    reply(":1.7", ORDINARY);
    pass(PING_REPORT_MS - 1);
    EXPECT_THAT(texts(), IsEmpty());
    pass(1);
    EXPECT_THAT(texts(), ElementsAre(HasSubstr("the callers are asked")));
}

TEST_F(ABusThatDoesNotTell, TakesAnErrorOfTheCallerForAnAnswer)
{
    pingIsAllowed();
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    EXPECT_TRUE(fails(BusQuestion::PING, ":1.1", "org.freedesktop.DBus.Error.AccessDenied", ":1.1"))
        << "it can only speak for itself";
    EXPECT_THAT(m_oBus.released, SizeIs(1));
    reply(":1.2", WINDOW_BYTES);
    EXPECT_FALSE(reply(":1.2", ORDINARY));
}

TEST_F(ABusThatDoesNotTell, BelievesNoAnswerOfAnybodyElse)
{
    pingIsAllowed();
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    const auto asked = m_oBus.asked;
    EXPECT_GE(asked.begin()->first, FIRST_SERIAL);
    EXPECT_FALSE(answer(BusQuestion::PING, ":1.1", BusMessagePtr(g_dbus_message_new()), ":1.2"));
    m_oBus.asked = asked;
    EXPECT_THAT(m_oBus.released, IsEmpty());
    EXPECT_TRUE(pong(":1.1"));
    EXPECT_THAT(m_oBus.released, SizeIs(1));
}

TEST_F(ABusThatDoesNotTell, FindsOutWhetherACallerThatNeverAnsweredIsStillThere)
{
    pingIsAllowed();
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    fails(BusQuestion::PING, ":1.1", "org.freedesktop.DBus.Error.NoReply");
    EXPECT_TRUE(owner(":1.1"));
    EXPECT_THAT(m_oBus.released, IsEmpty()) << "the bus has only given the question up";
    pass(LONGEST_PAUSE_MS);
    user(":1.1", 1000);
    fails(BusQuestion::PING, ":1.1", "org.freedesktop.DBus.Error.NoReply");
    fails(BusQuestion::OWNER, ":1.1", NO_OWNER);
    pass(60000);
    EXPECT_THAT(m_oBus.asked, IsEmpty());
}

TEST_F(ABusThatDoesNotTell, HasNoMoreQuestionsOpenThanTheBusAllows)
{
    pingIsAllowed();
    for (int i = 0; i < 200; i++) {
        reply(":1." + std::to_string(i + 100), ASK_BYTES + HEADER_BYTES);
    }
    EXPECT_EQ(open(BusQuestion::PING) + open(BusQuestion::OWNER), QUESTIONS + QUESTIONS_KEPT);
    EXPECT_LE(open(BusQuestion::PING), QUESTIONS);
    EXPECT_LT(m_oBus.asked.size(), 128u);
}

TEST_F(ABusThatDoesNotTell, SendsEverythingWhereCallersMayNotBeAskedEither)
{
    reply(":1.7", ORDINARY);
    reply(":1.1", WINDOW_BYTES);
    EXPECT_FALSE(reply(":1.1", ORDINARY));
    fails(BusQuestion::PING, ":1.7", "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_THAT(m_oBus.released, SizeIs(1));
    EXPECT_TRUE(reply(":1.1", 30 * MIB));
    EXPECT_TRUE(answer(BusQuestion::WATCH, "", BusMessagePtr(g_dbus_message_new())));
    pass(60000);
    EXPECT_THAT(texts(), ElementsAre(HasSubstr("neither the bus nor its clients tell")));
}

class ABusWhereNobodyTells : public ABusThatDoesNotTell {
protected:
    ABusWhereNobodyTells()
    {
        reply(":1.7", ORDINARY);
        fails(BusQuestion::PING, ":1.7", "org.freedesktop.DBus.Error.AccessDenied");
        EXPECT_TRUE(answer(BusQuestion::WATCH, "", BusMessagePtr(g_dbus_message_new())))
            << "so that it sees the service end";
    }
};

TEST_F(ABusWhereNobodyTells, HasToProveThatItStillReadsBeyondWhatItTakes)
{
    for (std::size_t i = 0; i < UNKNOWN_BYTES / MIB - 1; i++) {
        EXPECT_TRUE(reply(":1.1", MIB));
    }
    pass(10000);
    EXPECT_EQ(open(BusQuestion::PROOF), 0u);
    reply(":1.1", MIB);
    reply(":1.1", MIB);
    pass(PROOF_MS);
    EXPECT_EQ(open(BusQuestion::PROOF), 1u);
    EXPECT_TRUE(answer(BusQuestion::PROOF, "", BusMessagePtr(g_dbus_message_new())));
    pass(60000);
    EXPECT_EQ(open(BusQuestion::PROOF), 0u) << "nothing was sent since";
    EXPECT_EQ(m_oBus.uEnds, 0u);
    reply(":1.1", ORDINARY);
    pass(PROOF_MS);
    EXPECT_EQ(open(BusQuestion::PROOF), 1u);
    reply(":1.1", ORDINARY);
    answer(BusQuestion::PROOF, "", BusMessagePtr(g_dbus_message_new()));
    pass(PROOF_MS);
    EXPECT_EQ(open(BusQuestion::PROOF), 1u) << "of what was sent behind the question, too";
}

TEST_F(ABusWhereNobodyTells, EndsTheServiceWhenTheBusIsSilent)
{
    for (std::size_t i = 0; i < UNKNOWN_BYTES / MIB + 1; i++) {
        reply(":1.1", MIB);
    }
    pass(BUS_SILENT_MS - 1);
    EXPECT_EQ(m_oBus.uEnds, 0u);
    pass(2 * PROOF_MS);
    EXPECT_EQ(m_oBus.uEnds, 1u);
    EXPECT_THAT(texts(),
                Contains(HasSubstr("the bus has not answered for 10000 ms, the service ends")));
    pass(60000);
    EXPECT_EQ(m_oBus.uEnds, 1u) << "once";
}

TEST_F(ABusFlow, EndsTheServiceWhenTheBusDoesNotAnswerAboutACallerEither)
{
    reply(":1.1", WINDOW_BYTES);
    pass(BUS_SILENT_MS);
    EXPECT_EQ(m_oBus.uEnds, 1u);
}

TEST_F(ABusFlow, TriesAQuestionThatCouldNotBeSentAgain)
{
    m_oBus.bConnected = false;
    reply(":1.1", WINDOW_BYTES);
    EXPECT_FALSE(reply(":1.1", ORDINARY));
    m_oBus.bConnected = true;
    pass(LONGEST_PAUSE_MS);
    EXPECT_TRUE(unread(":1.1", 0));
    EXPECT_THAT(m_oBus.released, SizeIs(1));
}

TEST_F(ABusFlow, LearnsNothingFromAnErrorThatPasses)
{
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    fails(BusQuestion::UNREAD, ":1.1", "org.freedesktop.DBus.Error.NoMemory");
    pass(FIRST_PAUSE_MS);
    EXPECT_EQ(open(BusQuestion::UNREAD), 1u) << "the bus is asked again";
    EXPECT_THAT(m_oBus.released, IsEmpty());
}

}  // namespace
