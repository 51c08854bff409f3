// http_request_steps_test.cpp - the steps of each request: platform calls, log records and calls of the connector
// in one order.
#include "protocol_layer.h"

#include <string>
#include <vector>

namespace {

using Given = std::vector<std::string>;

// A log record stands with its function; other tests compare its text.
Given TakeSteps()
{
    Given steps;
    for (const fake::Event& event : fake::platform().timeline()) {
        const bool bLog = event.kind == fake::Event::LOG;
        steps.push_back(bLog ? "log " + event.record.strFunction : event.text);
    }
    fake::platform().clearTimeline();
    return steps;
}

Given operator+(Given first, const Given& then)
{
    first.insert(first.end(), then.begin(), then.end());
    return first;
}

Given Logs(const std::string& strFunction, std::size_t uLines = 1)
{
    return Given(uLines, "log " + strFunction);
}

const Given INIT =
    Logs("Init") + Given{SERVER_TYPE} + Logs("GetiVantorSerType") + Given{SANDBOX} + Logs("Init");
const Given ASK_UID = Given{UID} + Logs("GetSSOUID");
const Given ASK_LANGUAGE = Given{LANGUAGE} + Logs("GetLanguage", 3);
const Given HEADER = {DUID, ATOKEN};

// The last steps: the lines about the request, the connector, the end.
Given Sent(const std::string& strFunction, std::size_t uLines, const char* szHow)
{
    return Logs(strFunction, uLines) + Given{szHow} + Logs(strFunction);
}

TEST_F(ProtocolLayer, MakesTheConnectorBehindTheFirstLine)
{
    EXPECT_TRUE(confirm());
    const Given steps = TakeSteps();
    EXPECT_EQ(Given(steps.begin(), steps.begin() + 3),
              Logs("RequestConfirmPurchase") + Given{"connector"} + Logs("Init"));
}

TEST_F(ProtocolLayer, TakesTheStepsOfAGetInOrder)
{
    confirm();
    TakeSteps();
    std::string strName = "RequestCheckServerAvailability";
    EXPECT_TRUE(availability());
    EXPECT_EQ(TakeSteps(), Logs(strName) + INIT + ASK_UID + ASK_UID + ASK_LANGUAGE +
                               Given{COUNTRY} + Logs(strName) + HEADER + Sent(strName, 2, "Get"));
    strName = "RequestGetProducts";
    EXPECT_TRUE(products());
    EXPECT_EQ(TakeSteps(), Logs(strName) + INIT + Given{GUID} + ASK_UID + Given{COUNTRY} +
                               ASK_LANGUAGE + HEADER + Sent(strName, 2, "Get"));
    strName = "RequestPurchaseHistory";
    EXPECT_TRUE(history());
    EXPECT_EQ(TakeSteps(), Logs(strName) + INIT + ASK_UID + Given{COUNTRY} + ASK_LANGUAGE +
                               Given{GUID} + ASK_UID + HEADER + Sent(strName, 2, "Get"));
    EXPECT_TRUE(appHistory());
    EXPECT_EQ(TakeSteps(), Logs(strName) + INIT + Given{GUID} + ASK_UID + Given{COUNTRY} +
                               ASK_LANGUAGE + HEADER + Sent(strName, 2, "Get"));
}

TEST_F(ProtocolLayer, TakesTheStepsOfAPostInOrder)
{
    const Given payment = INIT + HEADER + ASK_LANGUAGE + Given{COUNTRY} + Given{GUID} + ASK_UID;
    confirm();
    TakeSteps();
    std::string strName = "RequestGetAppliedTime";
    EXPECT_TRUE(appliedTime());
    EXPECT_EQ(TakeSteps(), Logs(strName) + payment + Sent(strName, 3, "Post"));
    strName = "RequestConfirmPurchase";
    EXPECT_TRUE(confirm());
    EXPECT_EQ(TakeSteps(), Logs(strName) + payment + Sent(strName, 3, "Post"));
}

}  // namespace
