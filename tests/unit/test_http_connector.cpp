// test_http_connector.cpp - CHttpConnector with a double in place of the curl wrapper: every step,
// text and option.
#include "BillingHttpConnector.h"
#include "allocation_switch.h"
#include "log_matchers.h"
#include "mzcurl_double.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

// Reaches the steps that only the worker takes, so that a test can take them in the order it wants.
struct ConnectorProbe {
    CHttpConnector& o;

    bool idle() const { return o.m_bIdle; }
    static std::size_t inFlight() { return CHttpConnector::m_ReqInfoList.size(); }
    static std::size_t inFlightBak() { return CHttpConnector::m_ReqInfoListBak.size(); }
    static void addAgain(_BILLING_REQ_HANDLER_t* pt)
    {
        CHttpConnector::m_ReqInfoList.push_back(pt);
        CHttpConnector::m_ReqInfoListBak.push_back(pt);
    }
    static void forget(_BILLING_REQ_HANDLER_t* pt)
    {
        CHttpConnector::m_ReqInfoList.remove(pt);
        CHttpConnector::m_ReqInfoListBak.remove(pt);
    }
    static void dropFromBak() { CHttpConnector::m_ReqInfoListBak.clear(); }
    static _BILLING_REQ_HANDLER_t* last() { return CHttpConnector::m_ReqInfoList.back(); }
    bool init(_BILLING_REQ_HANDLER_t* pt) { return o.m_InitRequest(pt); }
    bool options(_BILLING_REQ_HANDLER_t* pt) { return o.m_SetEasyHandleOptions(pt); }
    bool add(MZCurl::MZCurlEasy* p) { return o.m_AddEasyHandle(p); }
    bool remove(MZCurl::MZCurlEasy* p) { return o.m_RemoveEasyHandle(p); }
    bool removeRequest(_BILLING_REQ_HANDLER_t* pt) { return o.m_RemoveRequest(pt); }
    void result(_BILLING_REQ_HANDLER_t* pt, MZCurl::MZCurlMulti::MultiMsg tMsg)
    {
        o.m_HandleRequestResult(pt, tMsg);
    }
    void completed() { o.m_HandleCompletedRequest(); }
    void perform(int& i) { o.m_DoMultiPerform(i); }
    bool select(int& i) { return o.m_CurlMultiSelect(i); }
};

namespace {

const LinesOf CONNECTOR{"BillingHttpConnector.cpp"};
const LinesOf OPTIONS{"BillingHttpConnectorOptions.cpp"};
const std::string SET_OPTIONS = "m_SetEasyHandleOptions";

// What the connector asked GLib to run on the worker; run there only when a test wants a worker.
bool g_bInvokeForReal = false;
int g_iScheduled = 0;

struct Answer {
    bool bSuccess;
    std::string strBody;
    void* pUser;
};
std::vector<Answer> g_answers;

}  // namespace

extern "C" {
void __real_g_main_context_invoke(GMainContext* context, GSourceFunc func, gpointer data);
void __wrap_g_main_context_invoke(GMainContext* context, GSourceFunc func, gpointer data)
{
    ++g_iScheduled;
    EXPECT_EQ(func, &CHttpConnector::HandleRequest);
    if (g_bInvokeForReal) {
        __real_g_main_context_invoke(context, func, data);
    }
}
}

namespace {

void OnResponse(bool bSuccess, std::string& strRsp, void* pUserData)
{
    g_answers.push_back({bSuccess, strRsp, pUserData});
}

class AConnector : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::platform().reset();
        Curl() = CurlDouble();
        g_answers.clear();
        g_iScheduled = 0;
        g_bInvokeForReal = false;
        m_connector = std::make_unique<CHttpConnector>();
        m_probe = std::make_unique<ConnectorProbe>(ConnectorProbe{*m_connector});
        fake::platform().clearLog();
        Curl().events.clear();
    }

    void TearDown() override
    {
        while (ConnectorProbe::inFlight() > 0) {
            m_probe->removeRequest(ConnectorProbe::last());
        }
    }

    _BILLING_HTTP_REQ_INFO_T aRequest(int eMethod = HTTP_METHOD_GET)
    {
        _BILLING_HTTP_REQ_INFO_T tInfo;
        tInfo.bSSL = true;
        tInfo.eMethod = eMethod;
        tInfo.strUrl = "https://host/path";
        tInfo.strHeader = "A: 1\r\n";
        tInfo.strBody = "body";
        tInfo.pfnCallback = OnResponse;
        tInfo.pUserData = this;
        return tInfo;
    }

    _BILLING_REQ_HANDLER_t* submit(int eMethod = HTTP_METHOD_GET)
    {
        _BILLING_HTTP_REQ_INFO_T tInfo = aRequest(eMethod);
        EXPECT_TRUE(m_connector->Get(&tInfo, false));
        return ConnectorProbe::last();
    }

    // The transfer ends and the worker hears of it.
    void finish(_BILLING_REQ_HANDLER_t* ptHandler, bool bSuccess, const std::string& strBody)
    {
        ptHandler->ptReqInfo->strResponse = strBody;
        m_probe->result(ptHandler, {ptHandler->pEasyHandle, bSuccess, bSuccess ? 0 : 7, "reason"});
    }

    // The options of one record, as the wrapper saw them.
    std::vector<std::string> optionsOf(_BILLING_HTTP_REQ_INFO_T& tInfo, bool bExpected = true)
    {
        MZCurl::MZCurlEasy oEasy;
        _BILLING_REQ_HANDLER_t tHandler{&tInfo, &oEasy};
        Curl().options.clear();
        EXPECT_EQ(m_probe->options(&tHandler), bExpected);
        return Curl().options;
    }

    std::string headerOf(const std::string& strHeader)
    {
        _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
        tInfo.strHeader = strHeader;
        return optionsOf(tInfo).back();
    }

    std::unique_ptr<CHttpConnector> m_connector;
    std::unique_ptr<ConnectorProbe> m_probe;
};

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
    EXPECT_THAT(Curl().events, IsEmpty()) << "nothing was made";
}

TEST_F(AConnector, SubmitsARequestStepByStep)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();

    EXPECT_TRUE(m_connector->Get(&tInfo, false));

    EXPECT_THAT(
        LoggedLines("BillingHttpConnector.cpp"),
        ElementsAre(CONNECTOR.debug("Get", "Start to get request, bSync[0]"),
                    CONNECTOR.debug("m_HttpAsyncRequest", "[START] "),
                    CONNECTOR.debug("m_HttpAsyncRequest", "Receive a new async request."),
                    CONNECTOR.debug("m_InitRequest", "[START] "),
                    CONNECTOR.debug("m_InitRequest", "Init new request end."),
                    CONNECTOR.debug("m_AddEasyHandle", "[START] "),
                    CONNECTOR.debug("m_AddEasyHandle", "Add easy handle to multi successfully."),
                    CONNECTOR.debug("m_AddEasyHandle", "[END] "),
                    CONNECTOR.debug("m_PushRequest", "[START] "),
                    CONNECTOR.debug("m_PushRequest", "New Request come!"),
                    CONNECTOR.debug("m_PushRequest", "[END] "),
                    CONNECTOR.debug("m_HttpAsyncRequest", "Start an async request.")));
    EXPECT_EQ(ConnectorProbe::inFlight(), 1u);
    EXPECT_EQ(ConnectorProbe::inFlightBak(), 1u);
    EXPECT_FALSE(m_probe->idle());
    EXPECT_EQ(g_iScheduled, 1);
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

    EXPECT_EQ(g_iScheduled, 1);
    EXPECT_EQ(ConnectorProbe::inFlight(), 2u);
}

TEST_F(AConnector, IsIdleAfterTheLastRequestAndSchedulesAgain)
{
    finish(submit(), true, "");
    EXPECT_TRUE(m_probe->idle());
    fake::platform().clearLog();

    submit();

    EXPECT_EQ(g_iScheduled, 2);
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

    EXPECT_THAT(Curl().events, ElementsAre("Initialize", "reset", "destruct"));
    EXPECT_THAT(LoggedLines(),
                Contains(CONNECTOR.error("m_InitRequest",
                                         "[MZCurl][MZCurlEasy][Initialize()] return false!")));
    EXPECT_EQ(LoggedLines().back(), CONNECTOR.error("m_HttpAsyncRequest", "Fail to init request."));
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
    EXPECT_THAT(g_answers, IsEmpty());
}

TEST_F(AConnector, RefusesARequestThatTheMultiHandleDoesNotTake)
{
    Curl().bAddFails = true;
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();

    EXPECT_FALSE(m_connector->Get(&tInfo, false));

    EXPECT_EQ(
        LoggedLines().back(),
        CONNECTOR.error("m_AddEasyHandle", "[MZCurl][MZCurlMulti][addHandle()] return false!"));
    EXPECT_THAT(Curl().events, ElementsAre("Initialize", "add", "reset", "destruct"));
    EXPECT_EQ(ConnectorProbe::inFlight(), 0u);
    EXPECT_EQ(g_iScheduled, 0);
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
    MZCurl::MZCurlEasy oEasy;
    _BILLING_HTTP_REQ_INFO_T tInfo;
    _BILLING_REQ_HANDLER_t tNoRecord{nullptr, &oEasy};
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

// --- completion ---

TEST_F(AConnector, CallsBackOnceWithTheBodyAndFreesTheRequest)
{
    _BILLING_REQ_HANDLER_t* ptHandler = submit();
    fake::platform().clearLog();
    Curl().events.clear();

    finish(ptHandler, true, "the body");

    ASSERT_EQ(g_answers.size(), 1u);
    EXPECT_TRUE(g_answers[0].bSuccess);
    EXPECT_EQ(g_answers[0].strBody, "the body");
    EXPECT_EQ(g_answers[0].pUser, this);
    EXPECT_EQ(ConnectorProbe::inFlight(), 0u);
    EXPECT_THAT(Curl().events, ElementsAre("remove", "reset", "destruct"));
    EXPECT_THAT(LoggedLines(), ElementsAre(CONNECTOR.debug("m_HandleRequestResult", "[START] "),
                                           CONNECTOR.debug("m_RemoveRequest", "[START] "),
                                           CONNECTOR.debug("m_RemoveRequest", "[END] "),
                                           CONNECTOR.debug("m_HandleRequestResult", "[END] ")));
}

TEST_F(AConnector, CallsBackWithFailureAndWhateverArrived)
{
    finish(submit(), false, "half");

    ASSERT_EQ(g_answers.size(), 1u);
    EXPECT_FALSE(g_answers[0].bSuccess);
    EXPECT_EQ(g_answers[0].strBody, "half");
    EXPECT_THAT(LoggedLines(),
                Contains(CONNECTOR.error("m_HandleRequestResult",
                                         "MZCurl multiResult ErrorCode = 7;  ErrMsg = reason!")));
}

TEST_F(AConnector, IgnoresACompletionWhoseHandlerIsNotInFlight)
{
    MZCurl::MZCurlEasy oEasy;
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    _BILLING_REQ_HANDLER_t tHandler{&tInfo, &oEasy};

    m_probe->result(&tHandler, {&oEasy, true, 0, ""});

    char szAddress[32];
    std::snprintf(szAddress, sizeof szAddress, "%x",
                  static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(&tHandler)));
    EXPECT_EQ(LoggedLines().back(),
              CONNECTOR.error("m_HandleRequestResult", "This handle has been processed before:[" +
                                                           std::string(szAddress) + "]~~~~~~~~"));
    EXPECT_THAT(g_answers, IsEmpty());
    EXPECT_THAT(Curl().events, IsEmpty()) << "neither removed nor freed";
}

TEST_F(AConnector, GoesOnWithoutTheCrossCheckWhenTheSecondListLacksTheHandler)
{
    _BILLING_REQ_HANDLER_t* ptHandler = submit();
    ConnectorProbe::dropFromBak();

    finish(ptHandler, true, "body");

    EXPECT_EQ(g_answers.size(), 1u);
    EXPECT_EQ(ConnectorProbe::inFlight(), 0u);
}

TEST_F(AConnector, RemovesEveryOccurrenceOfAHandlerFromBothLists)
{
    _BILLING_REQ_HANDLER_t* ptHandler = submit();
    ConnectorProbe::addAgain(ptHandler);
    _BILLING_REQ_HANDLER_t* ptOther = submit();

    EXPECT_TRUE(m_probe->removeRequest(ptHandler));

    EXPECT_EQ(ConnectorProbe::inFlight(), 1u);
    EXPECT_EQ(ConnectorProbe::inFlightBak(), 1u);
    EXPECT_EQ(ConnectorProbe::last(), ptOther);
    EXPECT_FALSE(m_probe->idle());
}

TEST_F(AConnector, RefusesToRemoveWhatIsNotInFlight)
{
    _BILLING_REQ_HANDLER_t tHandler{nullptr, nullptr};

    EXPECT_FALSE(m_probe->removeRequest(&tHandler));

    EXPECT_THAT(LoggedLines(), ElementsAre(CONNECTOR.debug("m_RemoveRequest", "[START] ")));
}

TEST_F(AConnector, SaysThatARequestWasRemovedUnderItsCallback)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    // Only the lists forget it here; the objects are freed below.
    tInfo.pfnCallback = [](bool, std::string&, void* pUser) {
        ConnectorProbe::forget(static_cast<_BILLING_REQ_HANDLER_t*>(pUser));
    };
    ASSERT_TRUE(m_connector->Get(&tInfo, false));
    _BILLING_REQ_HANDLER_t* ptHandler = ConnectorProbe::last();
    ptHandler->ptReqInfo->pUserData = ptHandler;

    finish(ptHandler, true, "");

    EXPECT_THAT(LoggedLines(),
                Contains(CONNECTOR.error("m_HandleRequestResult", "Remove request error!")));
    delete ptHandler->ptReqInfo;
    delete ptHandler->pEasyHandle;
    delete ptHandler;
}

TEST_F(AConnector, ReadsMessagesUntilNoneIsLeft)
{
    _BILLING_REQ_HANDLER_t* ptFirst = submit();
    _BILLING_REQ_HANDLER_t* ptSecond = submit();
    Curl().messages = {{ptFirst->pEasyHandle, true, 0, ""}, {ptSecond->pEasyHandle, true, 0, ""}};

    m_probe->completed();

    EXPECT_EQ(g_answers.size(), 2u);
    EXPECT_TRUE(m_probe->idle());
}

TEST_F(AConnector, StopsReadingWhenAHandleDoesNotTellItsRequest)
{
    _BILLING_REQ_HANDLER_t* ptHandler = submit();
    Curl().messages = {{ptHandler->pEasyHandle, true, 0, ""},
                       {ptHandler->pEasyHandle, true, 0, ""}};
    Curl().bInfoFails = true;

    m_probe->completed();

    EXPECT_EQ(LoggedLines().back(),
              CONNECTOR.error("m_HandleCompletedRequest",
                              "[MZCurl][MZCurlEasy][getInfo()] return false!"));
    EXPECT_EQ(Curl().messages.size(), 1u);
    EXPECT_THAT(g_answers, IsEmpty());
}

TEST_F(AConnector, TurnsTheLoopAsLongAsTransfersRun)
{
    Curl().iRunning = 2;

    EXPECT_EQ(CHttpConnector::HandleRequest(m_connector.get()), 0);

    EXPECT_THAT(Curl().events, ElementsAre("Perform", "fdSelect", "fdSelect", "fdSelect"));
    EXPECT_THAT(LoggedLines(), ElementsAre(CONNECTOR.debug("HandleRequest", "[START] "),
                                           CONNECTOR.debug("m_DoMultiPerform", "[START] "),
                                           CONNECTOR.debug("m_DoMultiPerform", "[END] "),
                                           CONNECTOR.debug("HandleRequest", "[END] ")));
}

TEST_F(AConnector, OnlyLogsThatTheMultiHandleFailed)
{
    Curl().bPerformFails = true;
    Curl().bSelectFails = true;
    Curl().iRunning = 1;
    int iRunning = 0;
    m_probe->perform(iRunning);
    EXPECT_FALSE(m_probe->select(iRunning));

    EXPECT_THAT(
        LoggedLines(),
        ElementsAre(
            CONNECTOR.debug("m_DoMultiPerform", "[START] "),
            CONNECTOR.error("m_DoMultiPerform",
                            "[MZCurl][MZCurlMulti][Perform()] return false, runningHandles[3]!"),
            CONNECTOR.debug("m_DoMultiPerform", "[END] "),
            CONNECTOR.error("m_CurlMultiSelect", "[MZCurl][MZCurlMulti][fdSelect()] return false!"),
            CONNECTOR.error("m_CurlMultiSelect", "RunningHandles = [1]")));
}

TEST_F(AConnector, SaysThatAHandleWasNotRemoved)
{
    Curl().bRemoveFails = true;
    MZCurl::MZCurlEasy oEasy;

    EXPECT_FALSE(m_probe->remove(&oEasy));

    EXPECT_THAT(LoggedLines(),
                ElementsAre(CONNECTOR.error(
                    "m_RemoveEasyHandle", "[MZCurl][MZCurlMulti][removeHandle()] return false!")));
}

// --- synchronous mode ---

TEST_F(AConnector, PerformsASynchronousRequestOnTheCallersRecord)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    tInfo.pfnCallback = nullptr;
    tInfo.pUserData = nullptr;
    Curl().strLastError = "";

    EXPECT_TRUE(m_connector->Get(&tInfo, true));

    EXPECT_THAT(Curl().events, ElementsAre("Initialize", "send", "reset", "destruct"));
    EXPECT_EQ(Curl().pWriteData, &tInfo.strResponse);
    EXPECT_EQ(ConnectorProbe::inFlight(), 0u);
    EXPECT_THAT(LoggedLines("BillingHttpConnector.cpp"),
                ElementsAre(CONNECTOR.debug("Get", "Start to get request, bSync[1]"),
                            CONNECTOR.debug("m_HttpSyncRequest", "[START] "),
                            CONNECTOR.debug("m_HttpSyncRequest", "Start sync request."),
                            CONNECTOR.debug("m_InitRequest", "[START] "),
                            CONNECTOR.debug("m_InitRequest", "Init new request end."),
                            CONNECTOR.info("m_HttpSyncRequest", "Http sync request result = []"),
                            CONNECTOR.info("m_HttpSyncRequest", "Http SyncRequest end!")));
}

TEST_F(AConnector, ReportsASynchronousRequestThatFailed)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    Curl().bSendFails = true;

    EXPECT_FALSE(m_connector->Post(&tInfo, true));

    EXPECT_EQ(
        LoggedLines().back(),
        CONNECTOR.error("m_HttpSyncRequest", "[MZCurl][MZCurlEasy][send()] return false = [no]!"));
    EXPECT_THAT(g_answers, IsEmpty());
    EXPECT_THAT(Curl().events, ElementsAre("Initialize", "send", "reset", "destruct"));
}

TEST_F(AConnector, SendsNoSynchronousRequestWhoseSetUpFailed)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest(3);

    EXPECT_FALSE(m_connector->Get(&tInfo, true));

    EXPECT_THAT(Curl().events, ElementsAre("Initialize", "reset", "destruct"));
}

// --- options ---

TEST_F(AConnector, SetsTheOptionsOfATlsGetInOrder)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();

    EXPECT_THAT(optionsOf(tInfo),
                ElementsAre("17 1", "50 'https://host/path'", "78 callback", "86 pointer", "30 90",
                            "33 90", "92 pointer", "3 1", "67 ''", "69 ''", "34 3", "1 1",
                            "63 '/opt/down/cert/ca.pem'", "66 ''", "68 ''", "39 1", "38 2",
                            "75 'A: 1''Expect:'"));
    EXPECT_EQ(Curl().pfnWrite, &CHttpConnector::WriteDataCBFunc);
    EXPECT_TRUE(tInfo.bOptionsSet);
    EXPECT_THAT(LoggedLines(), ElementsAre(OPTIONS.error(SET_OPTIONS, "Setup SSL options"),
                                           OPTIONS.debug(SET_OPTIONS, "[END] ")));
}

TEST_F(AConnector, VerifiesNothingWithoutTls)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    tInfo.bSSL = false;

    EXPECT_THAT(
        optionsOf(tInfo),
        ElementsAre("17 1", "50 'https://host/path'", "78 callback", "86 pointer", "30 90", "33 90",
                    "92 pointer", "3 1", "67 ''", "69 ''", "39 0", "38 0", "75 'A: 1''Expect:'"));
    EXPECT_THAT(LoggedLines(), Contains(OPTIONS.error(SET_OPTIONS, "No SSL options are set")));
}

TEST_F(AConnector, PostsTheBodyWithItsLength)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest(HTTP_METHOD_POST);
    tInfo.strBody = std::string("a\0b", 3);
    const auto options = optionsOf(tInfo);

    EXPECT_EQ(options[0], "16 1");
    EXPECT_EQ(options[1], "59 '" + std::string("a\0b", 3) + "'");
    EXPECT_EQ(options[2], "44 3ll");
}

TEST_F(AConnector, DeletesWithABodyLikeAPost)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest(HTTP_METHOD_DELETE);
    const auto options = optionsOf(tInfo);

    EXPECT_EQ(options[0], "48 'DELETE'");
    EXPECT_EQ(options[1], "59 'body'");
    EXPECT_EQ(options[2], "44 4ll");
}

TEST_F(AConnector, SendsNoBodyWithAGet)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest(HTTP_METHOD_GET);

    EXPECT_THAT(optionsOf(tInfo), Not(Contains("59 'body'")));
}

struct Refusal {
    int iOption;
    int eMethod;
    bool bSSL;
    const char* szText;
};
class ARefusedOption : public AConnector, public ::testing::WithParamInterface<Refusal> {};
INSTANTIATE_TEST_SUITE_P(
    AConnector, ARefusedOption,
    ::testing::Values(Refusal{16, 2, true, "Set MZCurl::POST error = [no]"},
                      Refusal{59, 2, true, "Set MZCurl::POSTFIELDS error = [no]"},
                      Refusal{44, 2, true, "Set MZCurl::POSTFIELDSIZE error = [no]"},
                      Refusal{48, 4, true, "Set MZCurl::POST error = [no]"},
                      Refusal{59, 4, true, "Set MZCurl::POSTFIELDS error = [no]"},
                      Refusal{44, 4, true, "Set MZCurl::POSTFIELDSIZE error = [no]"},
                      Refusal{17, 1, true, "Set MZCurl::HTTPGET error = [no]"},
                      Refusal{50, 1, true, "Set MZCurl::URL error = [no]"},
                      Refusal{78, 1, true, "Set MZCurl::WRITEFUNCTION error = [no]"},
                      Refusal{86, 1, true, "Set MZCurl::WRITEDATA error = [no]"},
                      Refusal{30, 1, true, "Set MZCurl::TIMEOUT error = [no]"},
                      Refusal{33, 1, true, "Set MZCurl::CONNECTTIMEOUT error = [no]"},
                      Refusal{67, 1, false, "Set MZCurl::SSLCERTTYPE error = [no]"},
                      Refusal{69, 1, false, "Set MZCurl::SSLKEYTYPE error = [no]"},
                      Refusal{39, 1, false, "Set MZCurl::SSL_VERIFYPEER error = [no]"},
                      Refusal{38, 1, false, "Set MZCurl::SSL_VERIFYHOST error = [no]"},
                      Refusal{63, 1, true, "Set MZCurl::CAINFO error = [no]"},
                      Refusal{66, 1, true, "Set MZCurl::SSLCERT error = [no]"},
                      Refusal{68, 1, true, "Set MZCurl::SSLKEY error = [no]"},
                      Refusal{39, 1, true, "Set MZCurl::SSL_VERIFYPEER error = [no]"},
                      Refusal{38, 1, true, "Set MZCurl::SSL_VERIFYHOST error = [no]"},
                      Refusal{75, 1, true, "Set MZCurl::HTTPHEADER error = [no]"}));

TEST_P(ARefusedOption, EndsTheSetUpAtOnceWithItsOwnText)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest(GetParam().eMethod);
    tInfo.bSSL = GetParam().bSSL;
    Curl().iRefusedOption = GetParam().iOption;

    const auto options = optionsOf(tInfo, false);

    EXPECT_EQ(options.back().substr(0, 2), std::to_string(GetParam().iOption));
    EXPECT_EQ(LoggedLines().back(), OPTIONS.error(SET_OPTIONS, GetParam().szText));
    EXPECT_FALSE(tInfo.bOptionsSet);
}

class AnUncheckedOption : public AConnector, public ::testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(AConnector, AnUncheckedOption, ::testing::Values(92, 3, 34, 1));

TEST_P(AnUncheckedOption, DoesNotEndTheSetUpWhenItIsRefused)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    Curl().iRefusedOption = GetParam();

    optionsOf(tInfo, true);

    EXPECT_TRUE(tInfo.bOptionsSet);
}

TEST_F(AConnector, MakesTheHeaderListOfLinesWithAColon)
{
    EXPECT_EQ(headerOf("A: 1\r\nB 2\n\tC: 3\n"), "75 'A: 1''C: 3''Expect:'");
}

TEST_F(AConnector, TrimsHeaderLinesOfCrLfAndTabsButNotOfBlanks)
{
    EXPECT_EQ(headerOf("\v\t D: 4 \t\r\nE: 5"), "75 ' D: 4 ''E: 5''Expect:'");
}

TEST_F(AConnector, SendsAtLeastTheEmptyExpect)
{
    EXPECT_EQ(headerOf(""), "75 'Expect:'");
}

// --- write functions ---

TEST_F(AConnector, AppendsEachChunkOfTheBody)
{
    std::string strBody = "a";
    char chunk[] = "bcd";

    EXPECT_EQ(CHttpConnector::WriteDataCBFunc(chunk, 1, 3, &strBody), 3u);
    EXPECT_EQ(CHttpConnector::WriteHeaderDataCBFunc(chunk, 3, 1, &strBody), 3u);

    EXPECT_EQ(strBody, "abcdbcd");
    EXPECT_THAT(LoggedLines(), ElementsAre(CONNECTOR.debug("WriteDataCBFunc", "[START] "),
                                           CONNECTOR.debug("WriteDataCBFunc", "[END] ")));
}

TEST_F(AConnector, TakesNothingWithoutABufferOrATarget)
{
    std::string strBody;
    char chunk[] = "bcd";

    EXPECT_EQ(CHttpConnector::WriteDataCBFunc(nullptr, 1, 3, &strBody), 0u);
    EXPECT_EQ(CHttpConnector::WriteDataCBFunc(chunk, 1, 3, nullptr), 0u);
    EXPECT_EQ(CHttpConnector::WriteHeaderDataCBFunc(nullptr, 1, 3, &strBody), 0u);
    EXPECT_EQ(CHttpConnector::WriteHeaderDataCBFunc(chunk, 1, 3, nullptr), 0u);
    EXPECT_EQ(CHttpConnector::WriteDataToFileCBFunc(chunk, 1, 3, nullptr), 0u);
    EXPECT_EQ(CHttpConnector::WriteDataToFileCBFunc(nullptr, 1, 3, stderr), 0u);
    EXPECT_EQ(CHttpConnector::ReadDataCBFunc(chunk, 1, 3, nullptr), 0u);
    EXPECT_EQ(CHttpConnector::ReadDataCBFunc(nullptr, 1, 3, stdin), 0u);
}

TEST_F(AConnector, WritesToAndReadsFromAFile)
{
    const std::unique_ptr<FILE, decltype(&std::fclose)> file(std::tmpfile(), std::fclose);
    ASSERT_NE(file, nullptr);
    char out[] = "abcdef";
    EXPECT_EQ(CHttpConnector::WriteDataToFileCBFunc(out, 2, 3, file.get()), 3u);
    std::rewind(file.get());
    char in[7] = {};

    EXPECT_EQ(CHttpConnector::ReadDataCBFunc(in, 4, 2, file.get()), 1u) << "whole items only";
    EXPECT_EQ(std::string(in, 4), "abcd");
}

// --- life ---

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
    g_bInvokeForReal = true;
    ASSERT_TRUE(m_connector->Create());
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    ASSERT_TRUE(m_connector->Get(&tInfo, false));
    const Line tEnd = CONNECTOR.debug("HandleRequest", "[END] ");
    for (int i = 0; i < 10000 && ::testing::Value(LoggedLines(), Not(Contains(tEnd))); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    m_connector->Destroy();

    EXPECT_THAT(LoggedLines(), Contains(tEnd));
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
