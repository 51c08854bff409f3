// http_connector_life_test.cpp - creation and end of CHttpConnector's multi handle and worker.
#include "connector_fixture.h"
#include "waiting.h"

#include <gmock/gmock.h>

#include <algorithm>

using ::testing::Contains;
using ::testing::ElementsAre;

namespace {

TEST_F(AConnector, TriesTheMultiHandleAgainWhenItCouldNotBeMade)
{
    Curl().iMultiInitializeFailures = 2;
    construct();
    const std::string strText = "[MZCurl][MZCurlMulti][Initialize()] return false!!!";
    const Line tStart = CONNECTOR.debug("m_AddEasyHandle", "[START] ");
    const Line tAdded =
        CONNECTOR.debug("m_AddEasyHandle", "Add easy handle to multi successfully.");
    const Line tEnd = CONNECTOR.debug("m_AddEasyHandle", "[END] ");
    MZCurl::MZCurlEasy oEasy;

    EXPECT_FALSE(m_probe->add(&oEasy));
    EXPECT_TRUE(m_probe->add(&oEasy));
    EXPECT_TRUE(m_probe->add(&oEasy));

    EXPECT_THAT(
        Timeline(),
        ElementsAre(Did("multi Initialize"), CONNECTOR.error("CHttpConnector", strText), tStart,
                    Did("multi Initialize (multi)"), CONNECTOR.error("m_AddEasyHandle", strText),
                    tStart, Did("multi Initialize (multi)"), Did("add (multi)"), tAdded, tEnd,
                    tStart, Did("add (multi)"), tAdded, tEnd))
        << "by the constructor, by two additions, and no more once it is ready";
}

TEST_F(AConnector, IsCreatedRunningAndStopsTheWrapperFirst)
{
    EXPECT_TRUE(m_connector->Create());
    EXPECT_THAT(Notes(), ElementsAre("thread of 131072 bytes", "Start"))
        << "Create returns when the worker dispatches";
    const Steps timeline = Timeline();
    ASSERT_GT(timeline.size(), 3u);
    EXPECT_EQ(timeline[0], CONNECTOR.debug("Create", "[START] "));
    EXPECT_EQ(timeline[1], Did("thread of 131072 bytes"));
    EXPECT_EQ(timeline[2], Did("Start"));
    EXPECT_EQ(timeline[3], Asked("deployment_get_credential")) << "the device's key is verified";
    fake::platform().clearTimeline();
    GMainContext* const pContext = m_probe->context();
    EXPECT_FALSE(m_connector->Create()) << "it is running already";
    EXPECT_THAT(Timeline(), ElementsAre(CONNECTOR.debug("Create", "[START] "),
                                        CONNECTOR.refused("Create", "FlagCreate()")));
    EXPECT_EQ(m_probe->context(), pContext);
    fake::platform().clearTimeline();

    m_connector->Destroy();

    Steps stop = Timeline();
    stop.erase(std::remove(stop.begin(), stop.end(), Did("ThreadEnd")), stop.end());
    EXPECT_EQ(Timeline().size(), stop.size() + 1) << "the worker ended once";
    EXPECT_THAT(stop, ElementsAre(CONNECTOR.debug("Destroy", "[START] "), Did("Stop"),
                                  Did("quit loop"), Did("unref context"), Did("unref loop"),
                                  CONNECTOR.debug("Destroy", "[END] ")));
    EXPECT_EQ(Timeline().back(), CONNECTOR.debug("Destroy", "[END] "));
    EXPECT_EQ(m_probe->context(), nullptr);
    m_connector->Destroy();
    EXPECT_THAT(Notes(), Contains("quit loop").Times(1)) << "the second time nothing is left";
}

TEST_F(AConnector, BeginsWithEmptyListsAndAFreeLock)
{
    std::vector<_BILLING_REQ_HANDLER_t*> left{submit(), submit()};
    construct();
    EXPECT_EQ(ConnectorProbe::inFlight(), 0u);
    EXPECT_EQ(ConnectorProbe::inFlightBak(), 0u);
    EXPECT_TRUE(ConnectorProbe::listsCanBeLocked());
    for (_BILLING_REQ_HANDLER_t* ptHandler : left) {
        delete ptHandler->ptReqInfo;
        delete ptHandler->pEasyHandle;
        delete ptHandler;
    }
}

TEST_F(AConnector, IsNotCreatedWithoutItsWorker)
{
    Created().bFail = true;

    EXPECT_FALSE(m_connector->Create());

    EXPECT_THAT(Timeline(),
                ElementsAre(CONNECTOR.debug("Create", "[START] "), Did("thread of 131072 bytes")))
        << "no key is asked for, and the wrapper takes no requests";
    EXPECT_FALSE(m_connector->FlagCreate());
    m_connector->Destroy();
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
