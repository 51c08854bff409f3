// test_engine.cpp - CBillingEngine on the fake platform, with a double in place of the protocol
// layer.
#include "BillingEngine.h"
#include "BillingHttpConnector.h"
#include "BillingTaskBase.h"
#include "allocation_switch.h"
#include "ecore_environment.h"
#include "log_matchers.h"
#include "protocol_double.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Values;

namespace {

bool g_bPipeAddFails = false;
bool g_bPipeWriteFails = false;

}  // namespace

extern "C" {
Ecore_Pipe* __real_ecore_pipe_add(Ecore_Pipe_Cb handler, const void* data);
Ecore_Pipe* __wrap_ecore_pipe_add(Ecore_Pipe_Cb handler, const void* data)
{
    return g_bPipeAddFails ? nullptr : __real_ecore_pipe_add(handler, data);
}
Eina_Bool __real_ecore_pipe_write(Ecore_Pipe* pipe, const void* buffer, unsigned int bytes);
Eina_Bool __wrap_ecore_pipe_write(Ecore_Pipe* pipe, const void* buffer, unsigned int bytes)
{
    return g_bPipeWriteFails ? EINA_FALSE : __real_ecore_pipe_write(pipe, buffer, bytes);
}
}

struct EngineProbe {
    static Ecore_Pipe* pipe(const CBillingEngine& oEngine) { return oEngine.m_pPipe; }
};

namespace {

const LinesOf ENGINE{"BillingEngine.cpp"};
const std::string NO_NETWORK = "Network error, please check!";
const std::string TRY_LATER = "Try again later.";

struct Result {
    int eReqType;
    int iRespResult;
    std::string strRespInfo;
    void* pUser;
};

bool operator==(const Result& a, const Result& b)
{
    return a.eReqType == b.eReqType && a.iRespResult == b.iRespResult &&
           a.strRespInfo == b.strRespInfo && a.pUser == b.pUser;
}

std::ostream& operator<<(std::ostream& out, const Result& result)
{
    return out << "{" << result.eReqType << " " << result.iRespResult << " " << result.strRespInfo
               << " " << result.pUser << "}";
}

class AnEngine : public ::testing::Test {
public:
    // The reader of the pipe: takes the record over, as the front end does.
    static void Receive(void* data, void* buffer, unsigned int nbyte)
    {
        auto* self = static_cast<AnEngine*>(data);
        self->m_messageSizes.push_back(nbyte);
        const std::unique_ptr<BILLING_RETURN_INFO_T> info(
            *static_cast<BILLING_RETURN_INFO_T**>(buffer));
        self->m_last = *info;
        self->m_results.push_back(
            {info->eReqType, info->iRespResult, info->strRespInfo, info->pUser});
    }

protected:
    void SetUp() override
    {
        fake::platform().reset();
        Protocol() = ProtocolDouble();
        ASSERT_TRUE(m_oEngine.RegisterPipeCallback(Receive, this));
        fake::platform().clearLog();
    }

    void TearDown() override
    {
        g_bPipeAddFails = false;
        g_bPipeWriteFails = false;
        for (const ProtocolCall& call : Protocol().calls) {
            if (Protocol().bAccepts && !m_bAnswered) {
                delete call.pContext;
            }
        }
        m_oEngine.Destroy();
    }

    std::vector<Result> resultsOnPipe(std::size_t expected)
    {
        TurnUntil([&] { return m_results.size() >= expected; });
        return m_results;
    }

    void* caller() { return &m_caller; }

    static CBillingItem anItem()
    {
        CBillingItem oItem;
        oItem.strAppId = "app";
        oItem.strInvoiceId = "invoice";
        oItem.strCustomId = "custom";
        oItem.strPageNumber = "5";
        oItem.strItemType = "9";
        oItem.strCheckValue = "check";
        return oItem;
    }

    CBillingEngine m_oEngine;
    std::vector<Result> m_results;
    std::vector<unsigned int> m_messageSizes;
    BILLING_RETURN_INFO_T m_last;
    bool m_bAnswered = false;  // the contexts of the calls are gone
    int m_caller = 0;
};

// What distinguishes one request from the others, in the engine.
struct Request {
    const char* szName;
    const char* szProtocol;
    const char* szCallback;
    int eType;
    bool (*pfnCall)(CBillingEngine&, const CBillingItem&, void*);
    ResponseCallback pfnCallback;
};

std::ostream& operator<<(std::ostream& out, const Request& request)
{
    return out << request.szName;
}

const Request GET_PRODUCTS{
    "GetProducts",
    "RequestGetProducts",
    "m_GetProductsCB",
    6,
    [](CBillingEngine& e, const CBillingItem& i, void* p) { return e.GetProducts(i, p); },
    CBillingEngine::m_GetProductsCB};
const Request PURCHASE_HISTORY{
    "PurchaseHistory",
    "RequestPurchaseHistory",
    "m_PurchaseHistoryCB",
    5,
    [](CBillingEngine& e, const CBillingItem& i, void* p) { return e.PurchaseHistory(i, p); },
    CBillingEngine::m_PurchaseHistoryCB};
const Request GET_APPLIED_TIME{
    "GetAppliedTime",
    "RequestGetAppliedTime",
    "m_GetAppliedTimeCB",
    7,
    [](CBillingEngine& e, const CBillingItem& i, void* p) { return e.GetAppliedTime(i, p); },
    CBillingEngine::m_GetAppliedTimeCB};
const Request CONFIRM_PURCHASE{
    "ConfirmPurchase",
    "RequestConfirmPurchase",
    "m_ConfirmPurchaseCB",
    8,
    [](CBillingEngine& e, const CBillingItem& i, void* p) { return e.ConfirmPurchase(i, p); },
    CBillingEngine::m_ConfirmPurchaseCB};
const Request CHECK_SERVER{"CheckServerAvailability",
                           "RequestCheckServerAvailability",
                           "m_CheckServerAvailabilityCB",
                           9,
                           [](CBillingEngine& e, const CBillingItem&, void* p) {
                               std::string strText = "text";
                               return e.CheckServerAvailability(strText, p);
                           },
                           CBillingEngine::m_CheckServerAvailabilityCB};

class EveryRequest : public AnEngine, public ::testing::WithParamInterface<Request> {
protected:
    bool call() { return GetParam().pfnCall(m_oEngine, anItem(), caller()); }
};

INSTANTIATE_TEST_SUITE_P(Engine, EveryRequest,
                         Values(GET_PRODUCTS, PURCHASE_HISTORY, GET_APPLIED_TIME, CONFIRM_PURCHASE,
                                CHECK_SERVER),
                         [](const auto& request) { return request.param.szName; });

TEST_P(EveryRequest, IsHandedToTheProtocolLayerWithItsContextAndCallback)
{
    EXPECT_TRUE(call());

    ASSERT_EQ(Protocol().calls.size(), 1u);
    const ProtocolCall& call = Protocol().calls.front();
    EXPECT_EQ(call.strOperation, GetParam().szProtocol);
    EXPECT_EQ(call.pfnCallback, GetParam().pfnCallback);
    EXPECT_EQ(call.tContext.pOwner, &m_oEngine);
    EXPECT_EQ(call.tContext.pUser, caller());
    EXPECT_FALSE(call.tContext.bReserved);
    const std::string strOperation = GetParam().szName;
    EXPECT_THAT(LoggedLines(),
                ElementsAre(ENGINE.debug(strOperation, "[START] "),
                            ENGINE.info("m_CheckNetWorkStats", "Get Network status: 1"),
                            ENGINE.debug(strOperation, "[END] ")));
    EXPECT_THAT(m_results, IsEmpty());
}

TEST_P(EveryRequest, IsAnsweredWithNetworkErrorWithoutAGateway)
{
    fake::platform().gateway(false);

    EXPECT_FALSE(call());

    EXPECT_THAT(m_results, IsEmpty()) << "the reply comes on a later turn of the loop";
    EXPECT_THAT(resultsOnPipe(1),
                ElementsAre(Result{GetParam().eType, 1160003, NO_NETWORK, caller()}));
    EXPECT_THAT(Protocol().calls, IsEmpty());
    EXPECT_THAT(LoggedLines(),
                Contains(ENGINE.info("m_CheckNetWorkStats", "Get Network status: 0")));
    EXPECT_THAT(LoggedLines(), Not(Contains(ENGINE.debug(GetParam().szName, "[END] "))));
}

TEST_P(EveryRequest, IsAnsweredWithNetworkErrorWhenTheGatewayCannotBeAsked)
{
    fake::platform().gatewayFails(5);

    EXPECT_FALSE(call());

    EXPECT_THAT(resultsOnPipe(1),
                ElementsAre(Result{GetParam().eType, 1160003, NO_NETWORK, caller()}));
    EXPECT_THAT(LoggedLines(),
                Contains(ENGINE.error("m_CheckNetWorkStats", "Get Network status failed: 5")));
}

TEST_P(EveryRequest, IsAnsweredWithTryAgainLaterWhenTheProtocolLayerRefuses)
{
    Protocol().bAccepts = false;

    EXPECT_FALSE(call());

    EXPECT_THAT(resultsOnPipe(1),
                ElementsAre(Result{GetParam().eType, 1160003, TRY_LATER, caller()}));
    EXPECT_THAT(LoggedLines(), Contains(ENGINE.debug(GetParam().szName, "[END] ")));
    for (const Line& line : LoggedLines()) {
        EXPECT_NE(line.ePriority, DLOG_ERROR) << line;
    }
}

TEST_P(EveryRequest, StaysUnansweredWithoutMemoryForItsContext)
{
    FailNothrowAllocation(1);

    EXPECT_FALSE(call());

    ecore_main_loop_iterate_may_block(EINA_FALSE);
    EXPECT_THAT(m_results, IsEmpty());
    EXPECT_THAT(LoggedLines(), ElementsAre(ENGINE.debug(GetParam().szName, "[START] "),
                                           ENGINE.refused(GetParam().szName, "NULL == ptReq")));
}

TEST_P(EveryRequest, EndsInTheServersBodyWhenTheTransferSucceeds)
{
    ASSERT_TRUE(call());
    std::string strBody = "{\"a\":1}";
    m_bAnswered = true;

    GetParam().pfnCallback(true, strBody, Protocol().calls.front().pContext);

    EXPECT_THAT(resultsOnPipe(1), ElementsAre(Result{GetParam().eType, 0, strBody, caller()}));
}

TEST_P(EveryRequest, EndsInMinusOneAndWhateverArrivedWhenTheTransferFails)
{
    ASSERT_TRUE(call());
    std::string strBody = "half a bo";
    m_bAnswered = true;

    GetParam().pfnCallback(false, strBody, Protocol().calls.front().pContext);

    EXPECT_THAT(resultsOnPipe(1), ElementsAre(Result{GetParam().eType, -1, strBody, caller()}));
}

TEST_P(EveryRequest, KeepsAnEmptyBodyEmptyInSuccessAndFailure)
{
    ASSERT_TRUE(call());
    ASSERT_TRUE(call());
    std::string strBody;
    m_bAnswered = true;

    GetParam().pfnCallback(true, strBody, Protocol().calls[0].pContext);
    GetParam().pfnCallback(false, strBody, Protocol().calls[1].pContext);

    EXPECT_THAT(resultsOnPipe(2), ElementsAre(Result{GetParam().eType, 0, "", caller()},
                                              Result{GetParam().eType, -1, "", caller()}));
}

TEST_P(EveryRequest, ItsCallbackRefusesAMissingContext)
{
    std::string strBody = "body";

    GetParam().pfnCallback(true, strBody, nullptr);

    EXPECT_THAT(LoggedLines(),
                ElementsAre(ENGINE.debug(GetParam().szCallback, "[START] "),
                            ENGINE.refused(GetParam().szCallback, "NULL == pUserData")));
}

TEST_P(EveryRequest, ItsCallbackIsSilentAboutAMissingOwner)
{
    std::string strBody = "body";

    GetParam().pfnCallback(false, strBody, new EngineRequestContext{nullptr, caller(), false});

    ecore_main_loop_iterate_may_block(EINA_FALSE);
    EXPECT_THAT(m_results, IsEmpty());
    EXPECT_THAT(LoggedLines(), ElementsAre(ENGINE.debug(GetParam().szCallback, "[START] ")));
}

class ResponseCallbacks : public AnEngine {
protected:
    std::vector<Line> linesOf(ResponseCallback pfnCallback, bool bSuccess)
    {
        std::string strBody = "body";
        pfnCallback(bSuccess, strBody, new EngineRequestContext{&m_oEngine, nullptr, false});
        resultsOnPipe(1);
        return LoggedLines();
    }
    static Line written()
    {
        return ENGINE.info("m_WriteRequestResultToPipe", "pReturnInfo->pUser (nil)");
    }
};

TEST_F(ResponseCallbacks, PurchaseHistoryLogsNeitherCodeNorBody)
{
    EXPECT_THAT(linesOf(CBillingEngine::m_PurchaseHistoryCB, false),
                ElementsAre(ENGINE.debug("m_PurchaseHistoryCB", "[START] "),
                            ENGINE.error("m_PurchaseHistoryCB", "m_PurchaseHistoryCB Http error! "),
                            written(), ENGINE.debug("m_PurchaseHistoryCB", "[END] ")));
}

TEST_F(ResponseCallbacks, GetProductsLogsCodeAndBody)
{
    EXPECT_THAT(linesOf(CBillingEngine::m_GetProductsCB, true),
                ElementsAre(ENGINE.debug("m_GetProductsCB", "[START] "),
                            ENGINE.info("m_GetProductsCB", "bResponseCode :1"),
                            ENGINE.info("m_GetProductsCB", "strRsp :body"), written(),
                            ENGINE.debug("m_GetProductsCB", "[END] ")));
}

TEST_F(ResponseCallbacks, GetProductsLogsItsError)
{
    EXPECT_THAT(linesOf(CBillingEngine::m_GetProductsCB, false),
                ElementsAre(ENGINE.debug("m_GetProductsCB", "[START] "),
                            ENGINE.error("m_GetProductsCB", "m_GetProductsCB Http error! "),
                            ENGINE.info("m_GetProductsCB", "bResponseCode :0"),
                            ENGINE.info("m_GetProductsCB", "strRsp :body"), written(),
                            ENGINE.debug("m_GetProductsCB", "[END] ")));
}

TEST_F(ResponseCallbacks, GetAppliedTimeLogsErrorCodeAndBody)
{
    EXPECT_THAT(linesOf(CBillingEngine::m_GetAppliedTimeCB, false),
                ElementsAre(ENGINE.debug("m_GetAppliedTimeCB", "[START] "),
                            ENGINE.error("m_GetAppliedTimeCB", "m_GetAppliedTimeCB Http error! "),
                            ENGINE.info("m_GetAppliedTimeCB", "bResponseCode :0"),
                            ENGINE.info("m_GetAppliedTimeCB", "strRsp :body"), written(),
                            ENGINE.debug("m_GetAppliedTimeCB", "[END] ")));
}

TEST_F(ResponseCallbacks, ConfirmPurchaseLogsErrorCodeAndBody)
{
    EXPECT_THAT(linesOf(CBillingEngine::m_ConfirmPurchaseCB, false),
                ElementsAre(ENGINE.debug("m_ConfirmPurchaseCB", "[START] "),
                            ENGINE.error("m_ConfirmPurchaseCB", "m_ConfirmPurchaseCB Http error! "),
                            ENGINE.info("m_ConfirmPurchaseCB", "bResponseCode :0"),
                            ENGINE.info("m_ConfirmPurchaseCB", "strRsp :body"), written(),
                            ENGINE.debug("m_ConfirmPurchaseCB", "[END] ")));
}

TEST_F(ResponseCallbacks, CheckServerAvailabilityLogsWithAnArrowAndNoTrailingBlank)
{
    const std::string strName = "m_CheckServerAvailabilityCB";
    EXPECT_THAT(linesOf(CBillingEngine::m_CheckServerAvailabilityCB, false),
                ElementsAre(ENGINE.debug(strName, "[START] "),
                            ENGINE.error(strName, "m_CheckServerAvailabilityCB Http error!"),
                            ENGINE.info(strName, "-------> bResponseCode :0"),
                            ENGINE.info(strName, "-------> strRsp :body"), written(),
                            ENGINE.debug(strName, "[END] ")));
}

TEST_F(AnEngine, PassesTheItemOnAsItCame)
{
    m_oEngine.GetProducts(anItem(), caller());
    m_oEngine.GetAppliedTime(anItem(), caller());
    m_oEngine.ConfirmPurchase(anItem(), caller());

    ASSERT_EQ(Protocol().calls.size(), 3u);
    for (const ProtocolCall& call : Protocol().calls) {
        EXPECT_EQ(call.oItem.strAppId, "app");
        EXPECT_EQ(call.oItem.strInvoiceId, "invoice");
        EXPECT_EQ(call.oItem.strCustomId, "custom");
        EXPECT_EQ(call.oItem.strCheckValue, "check");
    }
}

TEST_F(AnEngine, AlwaysAsksForTheFirstTwentyInvoicesWhateverTheCallerSays)
{
    m_oEngine.PurchaseHistory(anItem(), caller());

    ASSERT_EQ(Protocol().calls.size(), 1u);
    EXPECT_THAT(Protocol().calls.front().texts, ElementsAre("20", "1", "2"));
}

TEST_F(AnEngine, PassesTheAvailabilityTextOn)
{
    std::string strText = "text";

    m_oEngine.CheckServerAvailability(strText, caller());

    EXPECT_THAT(Protocol().calls.front().texts, ElementsAre("text"));
    EXPECT_EQ(strText, "text");
}

TEST_F(AnEngine, SendsACopyOfAllTwelveFieldsMarkedWithTheRequestsType)
{
    BILLING_RETURN_INFO_T tInfo;
    tInfo.eReqType = REQUEST_TYPE(0);
    tInfo.strSpare1 = "1";
    tInfo.iSpare1 = 11;
    tInfo.iSpare2 = 12;
    tInfo.strSpare2 = "2";
    tInfo.strSpare3 = "3";
    tInfo.strSpare4 = "4";
    tInfo.strSpare5 = "5";
    tInfo.strSpare6 = "6";
    tInfo.strRespInfo = "info";
    tInfo.pUser = caller();
    tInfo.iRespResult = 77;

    m_oEngine.m_WriteRequestResultToPipe(REQUEST_TYPE_GET_PRODUCTS, tInfo);

    ASSERT_EQ(resultsOnPipe(1).size(), 1u);
    EXPECT_EQ(m_last.eReqType, REQUEST_TYPE_GET_PRODUCTS);
    EXPECT_EQ(m_last.strSpare1 + m_last.strSpare2 + m_last.strSpare3 + m_last.strSpare4 +
                  m_last.strSpare5 + m_last.strSpare6,
              "123456");
    EXPECT_EQ(m_last.iSpare1, 11);
    EXPECT_EQ(m_last.iSpare2, 12);
    EXPECT_EQ(m_last.strRespInfo, "info");
    EXPECT_EQ(m_last.pUser, caller());
    EXPECT_EQ(m_last.iRespResult, 77);
    EXPECT_EQ(tInfo.eReqType, REQUEST_TYPE(0)) << "the producer's record is only copied";
    EXPECT_THAT(m_messageSizes, ElementsAre(sizeof(void*)));
}

TEST_F(AnEngine, DropsAResultWithoutMemoryForItsRecord)
{
    BILLING_RETURN_INFO_T tInfo;
    FailNothrowAllocation(1);

    m_oEngine.m_WriteRequestResultToPipe(REQUEST_TYPE_GET_PRODUCTS, tInfo);

    EXPECT_THAT(LoggedLines(),
                ElementsAre(ENGINE.refused("m_WriteRequestResultToPipe", "NULL == pReturnInfo")));
}

TEST_F(AnEngine, DropsAResultThatComesAfterDestroy)
{
    m_oEngine.Destroy();
    fake::platform().clearLog();
    BILLING_RETURN_INFO_T tInfo;

    m_oEngine.m_WriteRequestResultToPipe(REQUEST_TYPE_GET_PRODUCTS, tInfo);

    EXPECT_THAT(LoggedLines(),
                ElementsAre(ENGINE.refused("m_WriteRequestResultToPipe", "NULL == m_pPipe")));
}

TEST_F(AnEngine, SaysThatAReplyIsLostWhenThePipeDoesNotTakeIt)
{
    g_bPipeWriteFails = true;
    BILLING_RETURN_INFO_T tInfo;

    m_oEngine.m_WriteRequestResultToPipe(REQUEST_TYPE_GET_PRODUCTS, tInfo);

    EXPECT_THAT(LoggedLines(), Contains(ENGINE.error("m_WriteRequestResultToPipe",
                                                     "the result pipe is full, a reply is lost")));
}

TEST_F(AnEngine, AnswersTenThousandRefusalsThatWereQueuedBeforeTheLoopRan)
{
    fake::platform().gateway(false);
    for (int i = 0; i < 10000; ++i) {
        EXPECT_FALSE(m_oEngine.GetProducts({}, caller()));
    }

    EXPECT_EQ(resultsOnPipe(10000).size(), 10000u);
}

TEST_F(AnEngine, NeverBlocksOnAFullPipe)
{
    BILLING_RETURN_INFO_T tInfo;
    constexpr std::size_t MORE_THAN_THE_PIPE_HOLDS = 100000;
    for (std::size_t i = 0; i < MORE_THAN_THE_PIPE_HOLDS; ++i) {
        m_oEngine.m_WriteRequestResultToPipe(REQUEST_TYPE_GET_PRODUCTS, tInfo);
    }
    const auto lines = LoggedLines();
    const auto lost = static_cast<std::size_t>(std::count(
        lines.begin(), lines.end(),
        ENGINE.error("m_WriteRequestResultToPipe", "the result pipe is full, a reply is lost")));

    EXPECT_GT(lost, 0u);
    EXPECT_LT(lost, MORE_THAN_THE_PIPE_HOLDS - 32768) << "one user's outstanding calls must fit";
    EXPECT_EQ(resultsOnPipe(MORE_THAN_THE_PIPE_HOLDS - lost).size(),
              MORE_THAN_THE_PIPE_HOLDS - lost);
}

TEST_F(AnEngine, KeepsMessagesWholeWhenTwoThreadsWrite)
{
    constexpr std::size_t EACH = 20000;
    const auto write = [&](REQUEST_TYPE eType) {
        BILLING_RETURN_INFO_T tInfo;
        for (std::size_t i = 0; i < EACH; ++i) {
            m_oEngine.m_WriteRequestResultToPipe(eType, tInfo);
        }
    };
    std::thread worker(write, REQUEST_TYPE_GET_PRODUCTS);
    write(REQUEST_TYPE_CONFIRM_PURCHASE);
    worker.join();

    EXPECT_EQ(resultsOnPipe(2 * EACH).size(), 2 * EACH);
    EXPECT_EQ(std::count_if(m_results.begin(), m_results.end(),
                            [](const Result& r) { return r.eReqType == 6; }),
              static_cast<std::ptrdiff_t>(EACH));
}

TEST_F(AnEngine, IsDestroyedBesideAThreadThatWritesResults)
{
    std::atomic<bool> bStop{false};
    std::thread worker([&] {
        BILLING_RETURN_INFO_T tInfo;
        while (!bStop) {
            m_oEngine.m_WriteRequestResultToPipe(REQUEST_TYPE_GET_PRODUCTS, tInfo);
        }
    });
    TurnUntil([&] { return m_results.size() > 100; });

    m_oEngine.Destroy();
    const bool bGone = EngineProbe::pipe(m_oEngine) == nullptr;
    bStop = true;
    worker.join();

    EXPECT_TRUE(bGone);
}

class AnEnginesLife : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::platform().reset();
        Protocol() = ProtocolDouble();
    }
    void TearDown() override { g_bPipeAddFails = false; }
};

TEST_F(AnEnginesLife, BeginsWithAnEmptyItemAndNoPipeAndEndsWithALine)
{
    {
        const CBillingEngine oEngine;
        EXPECT_EQ(EngineProbe::pipe(oEngine), nullptr);
    }
    EXPECT_THAT(LoggedLines(), ElementsAre(ENGINE.debug("~CBillingEngine", "[END] ")));
}

TEST_F(AnEnginesLife, SaysThatThereIsNoPipe)
{
    CBillingEngine oEngine;
    g_bPipeAddFails = true;

    EXPECT_FALSE(oEngine.RegisterPipeCallback(AnEngine::Receive, nullptr));

    EXPECT_THAT(LoggedLines(),
                ElementsAre(ENGINE.error("RegisterPipeCallback", "ecore_pipe_add() return NULL!")));
}

TEST_F(AnEnginesLife, CreateGivesTheConnectorsOwnResult)
{
    CBillingEngine oEngine;
    EXPECT_TRUE(oEngine.Create());
    Protocol().bConnectorCreates = false;
    EXPECT_FALSE(oEngine.Create());
    EXPECT_THAT(Protocol().connector, ElementsAre("construct", "Create", "Create"));
    oEngine.Destroy();
}

TEST_F(AnEnginesLife, CreateRefusesWithoutMemoryForTheConnector)
{
    CBillingEngine oEngine;
    FailNothrowAllocation(1);

    EXPECT_FALSE(oEngine.Create());

    EXPECT_THAT(LoggedLines(), ElementsAre(ENGINE.refused("Create", "NULL == poConnector")));
}

TEST_F(AnEnginesLife, DestroyWithoutCreateMakesAConnectorOnlyToDestroyIt)
{
    CBillingEngine oEngine;

    oEngine.Destroy();

    EXPECT_THAT(Protocol().connector, ElementsAre("construct", "Destroy", "destruct"));
    EXPECT_EQ(CBillingSingleton<CHttpConnector>::m_pObj, nullptr);
    EXPECT_THAT(LoggedLines("BillingEngine.cpp"),
                ElementsAre(ENGINE.info("Destroy", "Destroy HttpConnector successfully.")));
}

TEST_F(AnEnginesLife, DestroyIsSilentWithoutMemoryForTheConnector)
{
    CBillingEngine oEngine;
    FailNothrowAllocation(1);

    oEngine.Destroy();

    EXPECT_THAT(LoggedLines(), IsEmpty());
}

}  // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleMock(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new EcoreEnvironment);
    return RUN_ALL_TESTS();
}
