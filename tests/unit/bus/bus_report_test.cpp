// bus_report_test.cpp - log lines about callers, and their number.
#include "fake_bus.h"

#include <gmock/gmock.h>

using namespace BusLimits;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

namespace {

constexpr const char* NO_OWNER = "org.freedesktop.DBus.Error.NameHasNoOwner";
constexpr std::size_t ORDINARY = 400;

TEST_F(ABusFlow, SaysNothingOfACallerThatIsHeldBackForAMoment)
{
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    pass(REPORT_MS / 2);
    unread(":1.1", 0);
    pass(60000);
    EXPECT_THAT(texts(), IsEmpty());
}

TEST_F(ABusFlow, TellsWhoIsHeldBackAndThatItIsOver)
{
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    pass(REPORT_MS);
    user(":1.1", 1000);
    EXPECT_THAT(texts(), ElementsAre("caller :1.1 (user 1000) is held back: it has not read "
                                     "1048576 bytes, 1 answers wait for it"));
    reply(":1.1", ORDINARY);
    unread(":1.1", 0);
    EXPECT_THAT(texts(), SizeIs(2));
    EXPECT_EQ(texts().back(),
              "caller :1.1 (user 1000) goes on: 2 answers had to wait, 0 of them were refused");
}

TEST_F(ABusFlow, TellsThatACallerHasLeft)
{
    reply(":1.1", WINDOW_BYTES);
    reply(":1.1", ORDINARY);
    pass(REPORT_MS);
    fails(BusQuestion::USER, ":1.1", NO_OWNER);
    fails(BusQuestion::UNREAD, ":1.1", NO_OWNER);
    EXPECT_THAT(texts(), SizeIs(2));
    EXPECT_EQ(texts().back(),
              "caller :1.1 (user unknown) has left: 1 answers that waited for it are dropped");
}

TEST_F(ABusFlow, TellsOfRefusedCallsOnceAndThatTheyAreOver)
{
    m_oFlow.RefusedCall(":1.1", 70000);
    user(":1.1", 1000);
    for (int i = 0; i < 500; i++) {
        m_oFlow.RefusedCall(":1.1", 80000);
        pass(10);
    }
    EXPECT_THAT(texts(), ElementsAre("caller :1.1 (user 1000) is refused: a call has 70000 bytes "
                                     "of arguments, 8192 are taken"));
    pass(REFUSALS_OVER_MS);
    EXPECT_THAT(texts(), SizeIs(2));
    EXPECT_EQ(texts().back(), "caller :1.1 (user 1000) is no longer refused: 501 calls were");
    EXPECT_FALSE(m_oBus.iWakeAt) << "nothing is left to do";
}

TEST_F(ABusFlow, TellsWhoHasTooManyCallsThatWantNoAnswer)
{
    m_oFlow.RefusedCall(":1.1", 0);
    user(":1.1", 1000);
    EXPECT_THAT(texts(), ElementsAre("caller :1.1 (user 1000) is refused: 512 of its calls that "
                                     "want no answer wait"));
}

TEST_F(ABusFlow, WritesNoMoreThanSoManyLinesAMinute)
{
    for (int i = 0; i < 300; i++) {
        const std::string strName = ":1." + std::to_string(i);
        m_oFlow.RefusedCall(strName, 70000);
        if (open(BusQuestion::USER) > 0) {
            user(strName, 1000);
        }
    }
    EXPECT_THAT(texts(), SizeIs(REPORTS));
    pass(REPORT_PERIOD_MS);
    EXPECT_THAT(texts(), SizeIs(2 * REPORTS));
    m_oFlow.RefusedCall(":1.999", 70000);
    EXPECT_THAT(texts(), Contains("280 more callers were held back or refused"));
    EXPECT_THAT(texts(), Not(Contains(HasSubstr(":1.299"))));
}

TEST_F(ABusFlow, CountsACallerOnceThatIsNotReported)
{
    for (unsigned i = 0; i <= REPORTS; i++) {
        const std::string strName = ":1." + std::to_string(i);
        reply(strName, WINDOW_BYTES);
        reply(strName, 400);
        pass(REPORT_MS);
        if (i < REPORTS) {
            user(strName, 1000);
        }
        unread(strName, WINDOW_BYTES);
        pass(2 * FIRST_PAUSE_MS);
        fails(BusQuestion::UNREAD, strName, NO_OWNER);
    }
    pass(REPORT_PERIOD_MS);
    m_oFlow.RefusedCall(":1.999", 70000);
    EXPECT_THAT(texts(), Contains("1 more callers were held back or refused"));
}

}  // namespace
