// log_test.cpp - line, file and colours of the service's log macros.
#include "BillingLog.h"
#include "log_matchers.h"

#include <gtest/gtest.h>

namespace {

const LinesOf HERE{"log_test.cpp"};

class TheLog : public ::testing::Test {
protected:
    void SetUp() override { fake::platform().reset(); }

    static int line() { return fake::platform().log().back().iLine; }
};

bool RefusesZero(int iValue)
{
    BILLING_RETURN_IF(iValue == 0, false);
    return true;
}

TEST_F(TheLog, NamesTheLineThatAMessageStandsOn)
{
    BILLING_DEBUG("debug");
    EXPECT_EQ(line(), __LINE__ - 1);
    BILLING_INFO("info");
    EXPECT_EQ(line(), __LINE__ - 1);
    BILLING_INFO_PLAIN("plain info");
    EXPECT_EQ(line(), __LINE__ - 1);
    BILLING_WARN("warning");
    EXPECT_EQ(line(), __LINE__ - 1);
    BILLING_ERROR("error");
    EXPECT_EQ(line(), __LINE__ - 1);
    BILLING_ERROR_PLAIN("plain error");
    EXPECT_EQ(line(), __LINE__ - 1);
    BILLING_ERROR_AS("Another", "error of another");
    EXPECT_EQ(line(), __LINE__ - 1);

    EXPECT_EQ(Timeline(),
              These(HERE.debug("TestBody", "debug"), HERE.info("TestBody", "info"),
                    HERE.plainInfo("TestBody", "plain info"), HERE.warning("TestBody", "warning"),
                    HERE.error("TestBody", "error"), HERE.plainError("TestBody", "plain error"),
                    HERE.error("Another", "error of another")));
}

TEST_F(TheLog, ShowsTheConditionThatAnOperationIsRefusedFor)
{
    EXPECT_TRUE(RefusesZero(1));
    EXPECT_EQ(Timeline(), Steps());

    EXPECT_FALSE(RefusesZero(0));
    EXPECT_EQ(Timeline(), These(HERE.refused("RefusesZero", "iValue == 0")));
}

TEST_F(TheLog, TakesTheNameOfAFileFromItsPath)
{
    EXPECT_STREQ(BillingLogFile("../service/core/main.cpp"), "main.cpp");
    EXPECT_STREQ(BillingLogFile("main.cpp"), "main.cpp");
    EXPECT_STREQ(BillingLogFile("/"), "");
}

}  // namespace
