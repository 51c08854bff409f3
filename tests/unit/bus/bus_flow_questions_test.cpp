// bus_flow_questions_test.cpp - when the flow control asks about a caller, and what it does without an answer.
#include "fake_bus.h"

#include <gmock/gmock.h>

using namespace BusLimits;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

constexpr std::size_t ORDINARY = 400;
constexpr std::size_t ASK_BYTES = AskBytes(WINDOW_BYTES);

TEST(ABusMessage, HasTheBytesOfItsBodyOrNone)
{
    const BusMessagePtr pMessage(g_dbus_message_new());
    EXPECT_EQ(BodyBytes(pMessage.get()), 0u);
    g_dbus_message_set_body(pMessage.get(), g_variant_new("(s)", "text"));
    EXPECT_EQ(BodyBytes(pMessage.get()), 5u);
}

TEST(ABusMessage, IsRefusedByAnErrorInItsPlace)
{
    const BusMessagePtr pReply(g_dbus_message_new());
    g_dbus_message_set_destination(pReply.get(), ":1.1");
    g_dbus_message_set_serial(pReply.get(), 7);
    g_dbus_message_set_reply_serial(pReply.get(), 8);

    const BusMessagePtr pError = MakeRefusal(pReply.get(), "the text");

    EXPECT_EQ(g_dbus_message_get_message_type(pError.get()), G_DBUS_MESSAGE_TYPE_ERROR);
    EXPECT_EQ(g_dbus_message_get_flags(pError.get()), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    EXPECT_STREQ(g_dbus_message_get_destination(pError.get()), ":1.1");
    EXPECT_EQ(g_dbus_message_get_serial(pError.get()), 7u);
    EXPECT_EQ(g_dbus_message_get_reply_serial(pError.get()), 8u);
    EXPECT_STREQ(g_dbus_message_get_error_name(pError.get()),
                 "org.freedesktop.DBus.Error.LimitsExceeded");
    EXPECT_STREQ(g_dbus_message_get_arg0(pError.get()), "the text");
}

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

TEST_F(ABusFlow, BeginsAnewWithACallerThatIsHeldBackAgain)
{
    for (int i = 0; i < 2; i++) {
        EXPECT_TRUE(reply(":1.1", WINDOW_BYTES));
        EXPECT_FALSE(reply(":1.1", (1 + 3 * i) * WINDOW_BYTES));
        EXPECT_EQ(open(BusQuestion::UNREAD), 1u) << "it is asked about at once";
        pass(REPORT_MS);
        user(":1.1", 1000);
        unread(":1.1", 0);
        EXPECT_EQ(texts().back(),
                  "caller :1.1 (user 1000) goes on: 1 answers had to wait, 0 of them were refused");
        EXPECT_EQ(texts().size(), 2u * (i + 1));
    }
}

TEST_F(ABusFlow, AsksAboutAHeldReplyAtOnceThoughTheOneBeforeHasGone)
{
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    unread(":1.1", 0);
    reply(":1.2", 1 + ASK_BYTES);
    EXPECT_FALSE(reply(":1.1", 2 * WINDOW_BYTES));
    EXPECT_THAT(open(BusQuestion::UNREAD), 2u);
}

TEST_F(ABusFlow, TakesACallerThatWasSeenLatelyForNoOldOne)
{
    for (std::size_t i = 0; i < KEPT_CALLERS; i++) {
        reply(":2." + std::to_string(i), i == 0 ? ASK_BYTES + 1 : ORDINARY);
        pass(1);
    }
    unread(":2.0", ORDINARY);
    reply(":3.1", ORDINARY);
    ASSERT_EQ(m_oBus.asked.size(), 1u);
    EXPECT_EQ(m_oBus.asked.begin()->second.strName, ":2.1");
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

TEST_F(ABusThatAsksCallers, PingsNoCallerThatHasReadEverythingAndWaitsForOthers)
{
    EXPECT_TRUE(reply(":1.2", UNREAD_BYTES - WINDOW_BYTES));
    EXPECT_TRUE(reply(":1.1", WINDOW_BYTES));
    EXPECT_FALSE(reply(":1.1", 2 * WINDOW_BYTES));
    EXPECT_EQ(open(BusQuestion::PING), 2u);
    EXPECT_TRUE(pong(":1.1"));
    EXPECT_THAT(m_oBus.released, IsEmpty()) << "what the other has not read blocks it";
    EXPECT_EQ(open(BusQuestion::PING), 1u);
}

TEST_F(ABusFlow, TakesTheAnswerToItsFirstSerial)
{
    m_oBus.uRandom = 0;
    reply(":1.1", WINDOW_BYTES);
    ASSERT_EQ(m_oBus.asked.begin()->first, FIRST_SERIAL);
    EXPECT_TRUE(unread(":1.1", 0));
}

TEST_F(ABusThatAsksCallers, TakesACallerThatIsThereForNoOldOne)
{
    for (std::size_t i = 0; i <= KEPT_CALLERS; i++) {
        pass(1);
        reply(":2." + std::to_string(i), ORDINARY);
    }
    ASSERT_EQ(m_oBus.asked.size(), 1u);
    const std::string strOldest = m_oBus.asked.begin()->second.strName;
    EXPECT_TRUE(owner(strOldest));
    pass(1);
    reply(":3.1", ORDINARY);
    ASSERT_EQ(m_oBus.asked.size(), 1u);
    EXPECT_NE(m_oBus.asked.begin()->second.strName, strOldest);
}

TEST_F(ABusThatAsksCallers, CountsWhatItReleasesWhereNobodyTells)
{
    constexpr std::size_t HELD = 8 * MIB;
    reply(":1.1", WINDOW_BYTES);
    EXPECT_FALSE(reply(":1.1", HELD));
    fails(BusQuestion::PING, ":1.1", "org.freedesktop.DBus.Error.AccessDenied");
    for (std::size_t uSent = HELD; uSent < UNKNOWN_BYTES; uSent += MIB) {
        EXPECT_TRUE(reply(":1.1", MIB));
    }
    pass(FIRST_PAUSE_MS);
    EXPECT_EQ(open(BusQuestion::PROOF), 0u);
    reply(":1.1", ORDINARY);
    pass(0);
    EXPECT_EQ(open(BusQuestion::PROOF), 1u);
}

}  // namespace
