// bus_flow_questions_test.cpp - when the flow control asks about a caller, and what it does without an answer.
#include "fake_bus.h"

#include <gmock/gmock.h>

using namespace BusLimits;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

constexpr std::size_t ORDINARY = 400;

TEST_F(ABusFlow, AsksAboutTheOthersAgainASecondAfterItAsked)
{
    constexpr int CALLERS = 16;
    for (int i = 0; i < CALLERS; i++) {
        const std::string strName = ":1." + std::to_string(i);
        EXPECT_TRUE(reply(strName, UNREAD_BYTES / CALLERS));
        EXPECT_TRUE(unread(strName, i == 3 ? 1 : UNREAD_BYTES / CALLERS));
    }
    pass(LONGEST_PAUSE_MS - 1);
    EXPECT_FALSE(reply(":1.99", UNREAD_BYTES / CALLERS + LARGE_BYTES));
    EXPECT_THAT(m_oBus.asked, IsEmpty()) << "the answers are fresh";
    pass(1);
    EXPECT_THAT(m_oBus.asked, IsEmpty()) << "no timer runs yet";
    pass(FIRST_PAUSE_MS);
    EXPECT_EQ(open(BusQuestion::UNREAD), static_cast<std::size_t>(CALLERS));
}

TEST_F(ABusFlow, WakesForAQuestionThatCouldNotBeSent)
{
    m_oBus.bConnected = false;
    EXPECT_TRUE(reply(":1.1", WINDOW_BYTES));
    ASSERT_TRUE(m_oBus.iWakeAt);
    EXPECT_EQ(*m_oBus.iWakeAt, m_oBus.iNow + LONGEST_PAUSE_MS);
}

TEST_F(ABusFlow, TellsOfACallerWhoseUserCannotBeAskedFor)
{
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    m_oBus.bConnected = false;
    pass(REPORT_MS);
    EXPECT_THAT(texts(), ElementsAre(HasSubstr("caller :1.1 (user unknown) is held back")));
}

TEST_F(ABusFlow, LeavesTheAnswersToOtherQuestionsToOthers)
{
    const BusMessagePtr pAnswer(g_dbus_message_new());
    g_dbus_message_set_sender(pAnswer.get(), BUS);
    for (const guint32 uSerial : {1U, FIRST_SERIAL - 1, FIRST_SERIAL}) {
        g_dbus_message_set_reply_serial(pAnswer.get(), uSerial);
        EXPECT_FALSE(m_oFlow.Answer(pAnswer.get())) << uSerial;
    }
}

class ABusThatAsksCallers : public ABusFlow {
protected:
    ABusThatAsksCallers()
    {
        m_oFlow.Start(":1.0");
        fails(BusQuestion::UNREAD, ":1.0", "org.freedesktop.DBus.Error.AccessDenied");
        reply(":1.7", ORDINARY);
        pong(":1.7");
    }
};

TEST_F(ABusThatAsksCallers, AsksAgainAfterAnAnswer)
{
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(reply(":1.1", WINDOW_BYTES));
        EXPECT_EQ(open(BusQuestion::PING), 1u);
        EXPECT_TRUE(pong(":1.1"));
    }
    EXPECT_TRUE(reply(":1.1", WINDOW_BYTES));
    EXPECT_TRUE(fails(BusQuestion::PING, ":1.1", "org.freedesktop.DBus.Error.NoMemory"));
    EXPECT_FALSE(reply(":1.1", ORDINARY)) << "an error that passes tells nothing";
    EXPECT_EQ(open(BusQuestion::PING), 1u);
}

TEST_F(ABusThatAsksCallers, DropsWhatWaitsForACallerThatCannotBePinged)
{
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    fails(BusQuestion::PING, ":1.1", "org.freedesktop.DBus.Error.NameHasNoOwner");
    EXPECT_THAT(m_oBus.asked, IsEmpty());
    pass(60000);
    EXPECT_THAT(m_oBus.asked, IsEmpty()) << "it is forgotten";
    EXPECT_TRUE(reply(":1.1", WINDOW_BYTES)) << "another caller of that name begins anew";
}

TEST_F(ABusThatAsksCallers, PingsACallerThatIsThereASecondLater)
{
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    fails(BusQuestion::PING, ":1.1", "org.freedesktop.DBus.Error.NoReply");
    EXPECT_TRUE(owner(":1.1"));
    pass(LONGEST_PAUSE_MS - 1);
    EXPECT_EQ(open(BusQuestion::PING), 0u);
    pass(1);
    EXPECT_EQ(open(BusQuestion::PING), 1u);
}

}  // namespace
