// bus_report_limits_test.cpp - the exact times and numbers at which the log's lines about callers begin and end.
#include "BusLimits.h"
#include "BusReport.h"
#include "log_matchers.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace BusLimits;

class AReport : public ::testing::Test {
protected:
    AReport() { fake::platform().reset(); }

    static std::string lastText()
    {
        return LoggedLines().empty() ? "" : LoggedLines().back().strText;
    }
    bool refused(const std::string& strName, gint64 iNow)
    {
        return m_oReport.RefusedCall(strName, ARGUMENT_BYTES + 1, iNow);
    }

    CBusReport m_oReport;
};

TEST_F(AReport, EndsARefusalItsWholeTimeAfterTheLastCall)
{
    EXPECT_TRUE(refused(":1.1", 1000));
    m_oReport.IsOf(":1.1", "5");
    EXPECT_FALSE(refused(":1.1", 5000)) << "its line is written";
    EXPECT_EQ(m_oReport.TellOver(5000 + REFUSALS_OVER_MS - 1), 5000 + REFUSALS_OVER_MS);
    EXPECT_EQ(LoggedLines().size(), 1u);
    EXPECT_EQ(m_oReport.TellOver(5000 + REFUSALS_OVER_MS), 0);
    EXPECT_EQ(lastText(), "caller :1.1 (user 5) is no longer refused: 2 calls were");
    EXPECT_EQ(m_oReport.TellOver(5000 + 2 * REFUSALS_OVER_MS), 0);
    EXPECT_EQ(LoggedLines().size(), 2u);
}

TEST_F(AReport, NamesTheEarliestEnd)
{
    refused(":1.1", 3000);
    refused(":1.2", 2000);
    EXPECT_EQ(m_oReport.TellOver(3000), 2000 + REFUSALS_OVER_MS);
    refused(":1.2", 4000);
    EXPECT_EQ(m_oReport.TellOver(4000), 3000 + REFUSALS_OVER_MS);
}

TEST_F(AReport, TellsOfACallerOnceAndOfAnUnknownUserNothing)
{
    refused(":1.1", 1000);
    m_oReport.IsOf(":1.1", "5");
    m_oReport.IsOf(":1.1", "6");
    m_oReport.IsOf(":1.2", "7");
    refused(":1.3", 1000);
    EXPECT_EQ(m_oReport.TellOver(1000 + REFUSALS_OVER_MS), 0);
    ASSERT_EQ(LoggedLines().size(), 2u);
    EXPECT_EQ(lastText(), "caller :1.1 (user 5) is no longer refused: 1 calls were");
}

TEST_F(AReport, BeginsSoManyStoriesInAPeriodAndCountsTheOthers)
{
    for (unsigned i = 0; i < REPORTS; ++i) {
        EXPECT_TRUE(m_oReport.MayBegin(1000 + i)) << i;
    }
    EXPECT_FALSE(m_oReport.MayBegin(1000 + REPORTS));
    EXPECT_FALSE(m_oReport.MayBegin(1000 + REPORT_PERIOD_MS - 1));
    EXPECT_TRUE(LoggedLines().empty());
    EXPECT_TRUE(m_oReport.MayBegin(1000 + REPORT_PERIOD_MS));
    EXPECT_EQ(lastText(), "2 more callers were held back or refused");
    for (unsigned i = 1; i < REPORTS; ++i) {
        EXPECT_TRUE(m_oReport.MayBegin(1000 + REPORT_PERIOD_MS)) << i;
    }
    EXPECT_FALSE(m_oReport.MayBegin(1000 + 2 * REPORT_PERIOD_MS - 1));
    EXPECT_TRUE(m_oReport.MayBegin(1000 + 2 * REPORT_PERIOD_MS));
    EXPECT_EQ(lastText(), "1 more callers were held back or refused");
    EXPECT_TRUE(m_oReport.MayBegin(1000 + 3 * REPORT_PERIOD_MS));
    EXPECT_EQ(LoggedLines().size(), 2u) << "nothing was left out";
}

TEST_F(AReport, RemembersSoManyRefusedCallers)
{
    for (std::size_t i = 0; i < REFUSED_CALLERS; ++i) {
        EXPECT_TRUE(refused(std::to_string(i), 1 + static_cast<gint64>(i) * REPORT_PERIOD_MS)) << i;
    }
    const gint64 iNow = 1 + static_cast<gint64>(REFUSED_CALLERS) * REPORT_PERIOD_MS;
    EXPECT_FALSE(refused("another", iNow));
    m_oReport.TellOver(REFUSALS_OVER_MS + 1);
    EXPECT_TRUE(refused("another", iNow));
}

}  // namespace
