// http_connector_test.cpp - requests in CHttpConnector: submitted to the worker, refused, or performed on the
// calling thread. Every step and its text.
#include "allocation_switch.h"
#include "connector_fixture.h"

#include <gmock/gmock.h>

#include <algorithm>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

// All events except the lines of setting the options.
Steps StepsWithoutOptions()
{
    Steps steps = Timeline();
    steps.erase(std::remove_if(steps.begin(), steps.end(),
                               [](const Line& line) { return line.strFile == OPTIONS.strFile; }),
                steps.end());
    return steps;
}

// --- submission ---

TEST_F(AConnector, RefusesANullRecord)
{
    EXPECT_FALSE(m_connector->Get(nullptr, false));
    EXPECT_FALSE(m_connector->Post(nullptr, true));

    EXPECT_THAT(LoggedLines(),
                ElementsAre(CONNECTOR.debug("Get", "Start to get request, bSync[0]"),
                            CONNECTOR.error("Get", "Input parameter(ptReqInfo) is NULL."),
                            CONNECTOR.info("Post", "Get request, bSync[1]"),
                            CONNECTOR.error("Post", "Input parameter(ptReqInfo) is NULL.")));
}

TEST_F(AConnector, RefusesAnAsynchronousRequestWithoutCallbackOrUserData)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    tInfo.pfnCallback = nullptr;
    EXPECT_FALSE(m_connector->Get(&tInfo, false));
    tInfo = aRequest();
    tInfo.pUserData = nullptr;
    EXPECT_FALSE(m_connector->Get(&tInfo, false));

    const Line tRefusal = CONNECTOR.error("m_HttpAsyncRequest", "Inpurt parameter error.");
    const auto lines = LoggedLines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), tRefusal), 2);
    EXPECT_THAT(Notes(), IsEmpty()) << "nothing was made";
}

TEST_F(AConnector, SubmitsARequestStepByStep)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();

    EXPECT_TRUE(m_connector->Get(&tInfo, false));

    EXPECT_THAT(
        StepsWithoutOptions(),
        ElementsAre(CONNECTOR.debug("Get", "Start to get request, bSync[0]"),
                    CONNECTOR.debug("m_HttpAsyncRequest", "[START] "),
                    CONNECTOR.debug("m_HttpAsyncRequest", "Receive a new async request."),
                    CONNECTOR.debug("m_InitRequest", "[START] "), Did("Initialize"),
                    CONNECTOR.debug("m_InitRequest", "Init new request end."),
                    CONNECTOR.debug("m_AddEasyHandle", "[START] "), Did("add (multi)"),
                    CONNECTOR.debug("m_AddEasyHandle", "Add easy handle to multi successfully."),
                    CONNECTOR.debug("m_AddEasyHandle", "[END] "),
                    CONNECTOR.debug("m_PushRequest", "[START] "),
                    CONNECTOR.debug("m_PushRequest", "New Request come!"), Did("invoke (lists)"),
                    CONNECTOR.debug("m_PushRequest", "[END] "),
                    CONNECTOR.debug("m_HttpAsyncRequest", "Start an async request.")));
    EXPECT_EQ(ConnectorProbe::inFlight(), 1u);
    EXPECT_EQ(ConnectorProbe::inFlightBak(), 1u);
    EXPECT_FALSE(m_probe->idle());
    EXPECT_EQ(Invoked().iCount, 1);
}

TEST_F(AConnector, WorksOnACopyOfEveryField)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    tInfo.bReserved1 = 2;
    tInfo.bReserved2 = 3;
    tInfo.iReserved1 = 4;
    tInfo.iReserved2 = 5;
    tInfo.iReserved3 = 6;
    tInfo.strReserved = "7";
    tInfo.lstReserved = {"8", "9"};
    tInfo.pReserved = &tInfo;
    tInfo.llReserved = 10;
    ASSERT_TRUE(m_connector->Get(&tInfo, false));

    const _BILLING_HTTP_REQ_INFO_T& tCopy = *ConnectorProbe::last()->ptReqInfo;
    EXPECT_NE(&tCopy, &tInfo);
    EXPECT_EQ(tCopy.bReserved1, 2);
    EXPECT_EQ(tCopy.bReserved2, 3);
    EXPECT_EQ(tCopy.iReserved1 + tCopy.iReserved2 + tCopy.iReserved3, 15);
    EXPECT_EQ(tCopy.strReserved, "7");
    EXPECT_THAT(tCopy.lstReserved, ElementsAre("8", "9"));
    EXPECT_EQ(tCopy.pReserved, &tInfo);
    EXPECT_EQ(tCopy.llReserved, 10);
    EXPECT_EQ(tCopy.strUrl + tCopy.strHeader + tCopy.strBody,
              tInfo.strUrl + tInfo.strHeader + tInfo.strBody);
    EXPECT_TRUE(tCopy.bOptionsSet);
    EXPECT_FALSE(tInfo.bOptionsSet) << "the caller's record stays as it was";
    EXPECT_EQ(Curl().pWriteData, &tCopy.strResponse);
    EXPECT_EQ(Curl().pPrivate, ConnectorProbe::last());
}

TEST_F(AConnector, ARecordBeginsWithItsDefaults)
{
    const _BILLING_HTTP_REQ_INFO_T tInfo;
    EXPECT_EQ(tInfo.bReserved1, 1);
    EXPECT_EQ(tInfo.bReserved2, 0);
    EXPECT_EQ(tInfo.iReserved3, 0);
    EXPECT_EQ(tInfo.eMethod, 0);
    EXPECT_EQ(tInfo.pfnCallback, nullptr);
    EXPECT_EQ(tInfo.pReserved, nullptr);
}

TEST_F(AConnector, SchedulesOneTransferLoopForTwoRequests)
{
    submit();
    submit();

    EXPECT_EQ(Invoked().iCount, 1);
    EXPECT_EQ(ConnectorProbe::inFlight(), 2u);
}

TEST_F(AConnector, IsIdleAfterTheLastRequestAndSchedulesAgain)
{
    finish(submit(), true, "");
    EXPECT_TRUE(m_probe->idle());
    fake::platform().clearLog();

    submit();

    EXPECT_EQ(Invoked().iCount, 2);
    EXPECT_THAT(LoggedLines(), Contains(CONNECTOR.debug("m_PushRequest", "New Request come!")));
}

class WithoutMemory : public AConnector, public ::testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(AConnector, WithoutMemory, ::testing::Values(1, 2, 3));

TEST_P(WithoutMemory, RefusesAndSaysForWhat)
{
    const char* const CONDITIONS[] = {"NULL == ptReqHandler", "NULL == ptRequest",
                                      "NULL ==pEasyHandle"};
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    FailNothrowAllocation(GetParam());

    EXPECT_FALSE(m_connector->Get(&tInfo, false));

    EXPECT_EQ(LoggedLines().back(),
              CONNECTOR.refused("m_HttpAsyncRequest", CONDITIONS[GetParam() - 1]));
    EXPECT_EQ(ConnectorProbe::inFlight(), 0u);
}

TEST_F(AConnector, RefusesARequestWhoseHandleCannotBeInitialised)
{
    Curl().bEasyInitializeFails = true;
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();

    EXPECT_FALSE(m_connector->Get(&tInfo, false));

    Steps steps = Timeline();
    ASSERT_GT(steps.size(), 5u);
    steps.erase(steps.begin(), steps.end() - 5);
    EXPECT_THAT(steps, ElementsAre(Did("Initialize"),
                                   CONNECTOR.error("m_InitRequest",
                                                   "[MZCurl][MZCurlEasy]"
                                                   "[Initialize()] return false!"),
                                   Did("reset"),
                                   CONNECTOR.error("m_HttpAsyncRequest", "Fail to init request."),
                                   Did("destruct")));
}

TEST_F(AConnector, RefusesMethodThreeInOptionSetUpAndNeverCallsBack)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest(3);

    EXPECT_FALSE(m_connector->Get(&tInfo, false));

    EXPECT_THAT(LoggedLines(),
                Contains(OPTIONS.error(SET_OPTIONS, "Http Request Method Error: 3")));
    EXPECT_THAT(LoggedLines(),
                Contains(CONNECTOR.error("m_InitRequest", "Set curl easy option error!")));
    EXPECT_THAT(Curl().options, IsEmpty()) << "refused before anything else is set";
    EXPECT_THAT(Answers(), IsEmpty());
}

TEST_F(AConnector, RefusesARequestThatTheMultiHandleDoesNotTake)
{
    Curl().bAddFails = true;
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();

    EXPECT_FALSE(m_connector->Get(&tInfo, false));

    EXPECT_EQ(
        LoggedLines().back(),
        CONNECTOR.error("m_AddEasyHandle", "[MZCurl][MZCurlMulti][addHandle()] return false!"));
    EXPECT_THAT(Notes(), ElementsAre("Initialize", "add (multi)", "reset", "destruct"));
    EXPECT_EQ(ConnectorProbe::inFlight(), 0u);
    EXPECT_EQ(Invoked().iCount, 0);
}

TEST_F(AConnector, PostsARecordWhoseMethodIsOneAsAGet)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest(HTTP_METHOD_GET);

    EXPECT_TRUE(m_connector->Post(&tInfo, false));

    EXPECT_THAT(Curl().options, Contains("17 1"));
    EXPECT_THAT(Curl().options, Not(Contains("16 1")));
}

TEST_F(AConnector, ItsStepsRefuseNullPointers)
{
    _BILLING_HTTP_REQ_INFO_T tInfo;
    _BILLING_REQ_HANDLER_t tNoRecord{nullptr, nullptr};
    _BILLING_REQ_HANDLER_t tNoHandle{&tInfo, nullptr};

    EXPECT_FALSE(m_probe->init(nullptr));
    EXPECT_FALSE(m_probe->init(&tNoRecord));
    EXPECT_FALSE(m_probe->init(&tNoHandle));
    EXPECT_FALSE(m_probe->options(nullptr));
    EXPECT_FALSE(m_probe->options(&tNoRecord));
    EXPECT_FALSE(m_probe->options(&tNoHandle));
    EXPECT_FALSE(m_probe->add(nullptr));
    EXPECT_FALSE(m_probe->remove(nullptr));
    EXPECT_EQ(CHttpConnector::HandleRequest(nullptr), 0);
    m_probe->result(nullptr, {});

    const Line tInit = CONNECTOR.debug("m_InitRequest", "[START] ");
    EXPECT_THAT(
        LoggedLines(),
        ElementsAre(tInit, CONNECTOR.refused("m_InitRequest", "NULL == ptReqHandler"), tInit,
                    CONNECTOR.refused("m_InitRequest", "NULL == ptReqHandler->ptReqInfo"), tInit,
                    CONNECTOR.refused("m_InitRequest", "NULL == ptReqHandler->pEasyHandle"),
                    OPTIONS.refused(SET_OPTIONS, "NULL == ptHandler"),
                    OPTIONS.refused(SET_OPTIONS, "NULL == ptHandler->ptReqInfo"),
                    OPTIONS.refused(SET_OPTIONS, "NULL == ptHandler->pEasyHandle"),
                    CONNECTOR.debug("m_AddEasyHandle", "[START] "),
                    CONNECTOR.error("m_AddEasyHandle", "Input param is NULL!"),
                    CONNECTOR.refused("m_RemoveEasyHandle", "(NULL == pEasyHandle)"),
                    CONNECTOR.debug("HandleRequest", "[START] "),
                    CONNECTOR.refused("HandleRequest", "NULL == pUser"),
                    CONNECTOR.debug("m_HandleRequestResult", "[START] "),
                    CONNECTOR.refused("m_HandleRequestResult", "ptReqHandler == NULL")));
}

// --- synchronous mode ---

TEST_F(AConnector, PerformsASynchronousRequestOnTheCallersRecord)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    tInfo.pfnCallback = nullptr;
    tInfo.pUserData = nullptr;
    Curl().strLastError = "";

    EXPECT_TRUE(m_connector->Get(&tInfo, true));

    EXPECT_EQ(Curl().pWriteData, &tInfo.strResponse);
    EXPECT_EQ(ConnectorProbe::inFlight(), 0u);
    EXPECT_THAT(
        StepsWithoutOptions(),
        ElementsAre(CONNECTOR.debug("Get", "Start to get request, bSync[1]"),
                    CONNECTOR.debug("m_HttpSyncRequest", "[START] "),
                    CONNECTOR.debug("m_HttpSyncRequest", "Start sync request."),
                    CONNECTOR.debug("m_InitRequest", "[START] "), Did("Initialize"),
                    CONNECTOR.debug("m_InitRequest", "Init new request end."), Did("send"),
                    CONNECTOR.info("m_HttpSyncRequest", "Http sync request result = []"),
                    Did("reset"), CONNECTOR.info("m_HttpSyncRequest", "Http SyncRequest end!"),
                    Did("destruct")));
}

TEST_F(AConnector, ReportsASynchronousRequestThatFailed)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    Curl().bSendFails = true;

    EXPECT_FALSE(m_connector->Post(&tInfo, true));

    EXPECT_EQ(
        LoggedLines().back(),
        CONNECTOR.error("m_HttpSyncRequest", "[MZCurl][MZCurlEasy][send()] return false = [no]!"));
    EXPECT_THAT(Answers(), IsEmpty());
    EXPECT_THAT(Notes(), ElementsAre("Initialize", "send", "reset", "destruct"));
}

TEST_F(AConnector, SendsNoSynchronousRequestWhoseSetUpFailed)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest(3);

    EXPECT_FALSE(m_connector->Get(&tInfo, true));

    EXPECT_THAT(Notes(), ElementsAre("Initialize", "reset", "destruct"));
}

}  // namespace
