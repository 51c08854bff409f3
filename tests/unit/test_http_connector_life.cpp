// test_http_connector_life.cpp - CHttpConnector's life: its multi handle, its worker, and the end of
// both.
#include "connector_fixture.h"
#include "waiting.h"

#include <gmock/gmock.h>

using ::testing::Contains;
using ::testing::ElementsAre;

namespace {

TEST_F(AConnector, TriesTheMultiHandleAgainWhenItCouldNotBeMade)
{
    m_connector.reset();
    fake::platform().clearLog();
    Curl().iMultiInitializeFailures = 2;
    m_connector = std::make_unique<CHttpConnector>();
    m_probe = std::make_unique<ConnectorProbe>(ConnectorProbe{*m_connector});
    const std::string strText = "[MZCurl][MZCurlMulti][Initialize()] return false!!!";
    EXPECT_THAT(LoggedLines(), ElementsAre(CONNECTOR.error("CHttpConnector", strText)));
    MZCurl::MZCurlEasy oEasy;

    EXPECT_FALSE(m_probe->add(&oEasy));
    EXPECT_EQ(LoggedLines().back(), CONNECTOR.error("m_AddEasyHandle", strText));
    EXPECT_TRUE(m_probe->add(&oEasy));
    EXPECT_TRUE(m_probe->add(&oEasy));

    EXPECT_THAT(Curl().events, ElementsAre("multi Initialize", "multi Initialize",
                                           "multi Initialize", "add", "add"))
        << "by the constructor, by two additions, and no more once it is ready";
}

TEST_F(AConnector, IsCreatedRunningAndStopsTheWrapperFirst)
{
    EXPECT_TRUE(m_connector->Create());
    EXPECT_THAT(Curl().events, ElementsAre("Start")) << "Create returns when the worker dispatches";
    EXPECT_FALSE(m_connector->Create()) << "it is running already";
    EXPECT_EQ(LoggedLines().back(), CONNECTOR.refused("Create", "FlagCreate()"));

    m_connector->Destroy();

    EXPECT_THAT(Curl().events, ElementsAre("Start", "Stop", "ThreadEnd"));
}

TEST_F(AConnector, RunsARequestOnItsWorker)
{
    Invoked().bForReal = true;
    ASSERT_TRUE(m_connector->Create());
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    ASSERT_TRUE(m_connector->Get(&tInfo, false));
    const Line tEnd = CONNECTOR.debug("HandleRequest", "[END] ");
    EXPECT_TRUE(Eventually([&] { return ::testing::Value(LoggedLines(), Contains(tEnd)); }));

    m_connector->Destroy();

    EXPECT_THAT(LoggedLines(), Contains(CONNECTOR.debug("Destroy", "[START] ")));
    EXPECT_EQ(LoggedLines().back(), CONNECTOR.debug("Destroy", "[END] "));
}

TEST_F(AConnector, IsDestroyedWithoutHavingBeenCreated)
{
    m_connector->Destroy();

    EXPECT_THAT(
        LoggedLines("BillingHttpConnector.cpp"),
        ElementsAre(CONNECTOR.debug("Destroy", "[START] "), CONNECTOR.debug("Destroy", "[END] ")));
    EXPECT_THAT(
        LoggedLines("BillingTaskBase.cpp"),
        ElementsAre(LinesOf{"BillingTaskBase.cpp"}.refused("Destroy", "FlagCreate() != true")));
}

}  // namespace
