// http_request_test.cpp - CBillingHttpRequest: the host, the common header, and the steps that all requests
// share.
#include "allocation_switch.h"
#include "protocol_layer.h"
#include "waiting.h"

#include <gmock/gmock.h>

#include <atomic>
#include <climits>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

TEST_F(ProtocolLayer, TakesTheSandboxForServerTypes1And2Only)
{
    const std::vector<std::pair<int, std::string>> hosts = {
        {1, "sandbox.example"},          {2, "sandbox.example"},         {0, "production.example"},
        {3, "production.example"},       {-1, "production.example"},     {4, "production.example"},
        {INT_MAX, "production.example"}, {INT_MIN, "production.example"}};
    for (const auto& [iType, strHost] : hosts) {
        fake::platform().serverType(iType);
        EXPECT_TRUE(confirm());
        EXPECT_EQ(posted().strUrl, "https://" + strHost + "/billing/payment/v2/confirm") << iType;
    }
}

TEST_F(ProtocolLayer, TakesTheSandboxWhenTheServerTypeCannotBeRead)
{
    fake::platform().serverType(std::nullopt);
    EXPECT_TRUE(confirm());
    EXPECT_EQ(posted().strUrl, "https://sandbox.example/billing/payment/v2/confirm");
}

TEST_F(ProtocolLayer, LooksAtTheServerTypeAtEveryRequestOfEachKind)
{
    for (const Operation& operation : operations()) {
        for (const int iType : {1, 0}) {
            fake::platform().serverType(iType);
            EXPECT_TRUE(operation.start());
            ASSERT_EQ(m_connector.submitted.size(), 1u);
            const std::string strHost = iType == 1 ? "sandbox.example" : "production.example";
            EXPECT_THAT(m_connector.submitted[0].tReqInfo.strUrl,
                        ::testing::StartsWith("https://" + strHost + "/billing/"))
                << operation.szName;
            m_connector.submitted.clear();
        }
    }
}

TEST_F(ProtocolLayer, SendsWithoutAHostWhenThePlatformHasNone)
{
    fake::platform().host(DEPLOYMENT_HOST_SANDBOX, std::nullopt);
    EXPECT_TRUE(confirm());
    EXPECT_EQ(posted().strUrl, "https:///billing/payment/v2/confirm");
    fake::platform().host(DEPLOYMENT_HOST_SANDBOX, "found.example:8443");
    EXPECT_TRUE(confirm());
    EXPECT_EQ(posted().strUrl, "https://found.example:8443/billing/payment/v2/confirm");
}

TEST_F(ProtocolLayer, InitialisesWithTwoLinesAroundTheServerType)
{
    EXPECT_TRUE(m_request.Init());
    EXPECT_THAT(LoggedLines(), ElementsAreArray(INIT_LINES));
    EXPECT_THAT(fake::platform().calls(), ElementsAre(SERVER_TYPE, SANDBOX));
}

TEST_F(ProtocolLayer, WritesTheFourCommonHeaderLines)
{
    std::string strHeader = "whatever it held before";
    EXPECT_TRUE(m_request.m_GetOSBCommonHeader(strHeader));
    EXPECT_EQ(strHeader, COMMON_HEADER);
    EXPECT_THAT(fake::platform().calls(), ElementsAre(DUID, ATOKEN));
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(ProtocolLayer, WritesAHeaderLineWithoutAValueWhenThereIsNone)
{
    fake::platform().config("db/comss/hwduid", std::nullopt);
    fake::platform().config("db/comss/atoken", std::nullopt);
    std::string strHeader;
    EXPECT_TRUE(m_request.m_GetOSBCommonHeader(strHeader));
    EXPECT_EQ(strHeader,
              "Content-Type: application/json; charset=utf-8\r\nAccept: application/json\r\n"
              "DUID: \r\nAtoken: \r\n");
}

TEST_F(ProtocolLayer, WritesHeaderValuesAsTheyAre)
{
    fake::platform().config("db/comss/hwduid", "  D 1: \"x\"  ");
    fake::platform().config("db/comss/atoken", "T%0d=&");
    EXPECT_TRUE(confirm());
    EXPECT_EQ(posted().strHeader,
              "Content-Type: application/json; charset=utf-8\r\nAccept: application/json\r\n"
              "DUID:   D 1: \"x\"  \r\nAtoken: T%0d=&\r\n");
}

TEST_F(ProtocolLayer, MakesTheConnectorBeforeItAsksThePlatformAndOnlyOnce)
{
    for (const Operation& operation : operations())
        EXPECT_TRUE(operation.start()) << operation.szName;
    EXPECT_THAT(m_connector.constructedAfter, ElementsAre(0u));
    EXPECT_EQ(m_connector.submitted.size(), 6u);
}

TEST_F(ProtocolLayer, GetsTheConnectorUnderItsLock)
{
    std::atomic<bool> bReturned{false};
    std::thread caller;
    {
        const CBillingAutoLock lock(&CBillingSingleton<CHttpConnector>::m_tSingletonLock);
        caller = std::thread([&] {
            confirm();
            bReturned = true;
        });
        EXPECT_TRUE(NotYet([&] { return bReturned.load(); }));
        EXPECT_THAT(fake::platform().calls(), IsEmpty());
    }
    caller.join();
    EXPECT_EQ(m_connector.submitted.size(), 1u);
}

TEST_F(ProtocolLayer, RefusesWithoutAConnectorAndAsksNothing)
{
    for (const Operation& operation : operations()) {
        fake::platform().clearLog();
        FailNothrowAllocation(1);
        EXPECT_FALSE(operation.start());
        EXPECT_THAT(LoggedLines(),
                    ElementsAre(Source.debug(operation.szName, "[START] "),
                                Source.error(operation.szName, "poInstance  is NULL!"),
                                Source.refused(operation.szName, "NULL == poInstance")));
    }
    EXPECT_THAT(fake::platform().calls(), IsEmpty());
    EXPECT_THAT(m_connector.submitted, IsEmpty());
    EXPECT_THAT(m_connector.constructedAfter, IsEmpty());
}

TEST_F(ProtocolLayer, PassesTheConnectorsRefusalOnAfterItsLastLine)
{
    m_connector.bAccepts = false;
    for (const Operation& operation : operations()) {
        fake::platform().clearLog();
        EXPECT_FALSE(operation.start());
        const auto lines = LoggedLines();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back(), Source.debug(operation.szName, "[END] "));
        EXPECT_THAT(lines,
                    ::testing::Each(::testing::Field(&Line::ePriority, ::testing::Ne(DLOG_ERROR))));
    }
    EXPECT_EQ(m_connector.submitted.size(), 6u);
}

TEST_F(ProtocolLayer, LeavesTheCallersItemAsItIs)
{
    const CBillingItem before = m_item;
    for (const Operation& operation : operations())
        operation.start();
    EXPECT_EQ(m_item.strAppId, before.strAppId);
    EXPECT_EQ(m_item.strCustomId, before.strCustomId);
    EXPECT_EQ(m_item.strInvoiceId, before.strInvoiceId);
    EXPECT_EQ(m_item.strCheckValue, before.strCheckValue);
    EXPECT_EQ(m_item.strItemType, before.strItemType);
    EXPECT_EQ(m_item.strPageNumber, before.strPageNumber);
}

}  // namespace
