// bus_users_test.cpp - the users of callers in log lines.
#include "fake_bus.h"

#include <gmock/gmock.h>

using namespace BusLimits;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr const char* NO_OWNER = "org.freedesktop.DBus.Error.NameHasNoOwner";

TEST_F(ABusFlow, AsksOnceWhoseACallerIsAndTellsIt)
{
    for (int i = 0; i < 100; i++) {
        m_oFlow.Called(":1.1");
    }
    EXPECT_EQ(open(BusQuestion::USER), 1u);
    EXPECT_FALSE(m_oBus.iWakeAt) << "it wakes up for nothing";
    EXPECT_TRUE(user(":1.1", 1000));
    m_oFlow.Called(":1.1");
    EXPECT_THAT(m_oBus.asked, IsEmpty());
    EXPECT_THAT(texts(), ElementsAre("caller :1.1 is of user 1000"));
}

TEST_F(ABusFlow, TellsNothingOfACallerThatHasLeft)
{
    m_oFlow.Called(":1.1");
    EXPECT_TRUE(fails(BusQuestion::USER, ":1.1", NO_OWNER));
    EXPECT_THAT(texts(), IsEmpty());
}

TEST_F(ABusFlow, AsksAgainWhenTheQuestionCouldNotBeSent)
{
    m_oBus.bConnected = false;
    m_oFlow.Called(":1.1");
    m_oBus.bConnected = true;
    m_oFlow.Called(":1.1");
    EXPECT_EQ(open(BusQuestion::USER), 1u);
}

TEST_F(ABusFlow, TellsARefusedCallerAndACallerApart)
{
    m_oFlow.Called(":1.1");
    m_oFlow.RefusedCall(":1.1", 70000);
    EXPECT_TRUE(user(":1.1", 1000));
    EXPECT_TRUE(user(":1.1", 1000));
    EXPECT_THAT(texts(), SizeIs(2));
    EXPECT_THAT(texts(), Contains("caller :1.1 is of user 1000"));
}

TEST_F(ABusFlow, TellsSoManyCallersOfAUserAMinuteAndHidesNoOtherUserByIt)
{
    for (int i = 0; i < 300; i++) {
        const std::string strName = ":1." + std::to_string(i);
        m_oFlow.Called(strName);
        user(strName, 1000);
    }
    EXPECT_THAT(texts(), SizeIs(TOLD_LINES));
    m_oFlow.Called(":1.900");
    user(":1.900", 1001);
    EXPECT_THAT(texts(), Contains("caller :1.900 is of user 1001"));
    pass(REPORT_PERIOD_MS);
    m_oFlow.Called(":1.901");
    user(":1.901", 1000);
    EXPECT_THAT(texts(), Contains("280 more callers were of user 1000"));
    EXPECT_THAT(texts(), Contains("caller :1.901 is of user 1000"));
}

TEST_F(ABusFlow, RemembersSoManyCallersThatWereTold)
{
    for (std::size_t i = 0; i <= TOLD_CALLERS; i++) {
        const std::string strName = ":1." + std::to_string(i);
        m_oFlow.Called(strName);
        user(strName, 1000);
    }
    m_oFlow.Called(":1.1");
    EXPECT_THAT(m_oBus.asked, IsEmpty()) << "it is remembered";
    m_oFlow.Called(":1.0");
    EXPECT_EQ(open(BusQuestion::USER), 1u) << "the oldest is forgotten";
    m_oFlow.Called(":1.1");
    EXPECT_EQ(open(BusQuestion::USER), 2u) << "and for it the next one";
}

TEST_F(ABusFlow, TellsOfOneCallerThatWasLeftOutAMinuteAfterTheFirst)
{
    const auto tell = [&](unsigned i) {
        const std::string strName = ":1." + std::to_string(i);
        m_oFlow.Called(strName);
        user(strName, 1000);
    };
    m_oBus.iNow = REPORT_PERIOD_MS / 2;
    for (unsigned i = 0; i < TOLD_LINES; i++) {
        tell(i);
    }
    pass(REPORT_PERIOD_MS - 1);
    tell(TOLD_LINES);
    EXPECT_THAT(texts(), SizeIs(TOLD_LINES)) << "a minute counts from its first line";
    pass(1);
    tell(900);
    EXPECT_THAT(texts(), Contains("1 more callers were of user 1000"));
    EXPECT_THAT(texts(), SizeIs(TOLD_LINES + 2));
}

}  // namespace
