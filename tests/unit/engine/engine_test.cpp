// engine_test.cpp - the five requests of CBillingEngine, passed to the protocol layer or refused, and
// creation and end of the engine.
#include "BillingHttpConnector.h"
#include "BillingTaskBase.h"
#include "allocation_switch.h"
#include "engine_fixture.h"
#include "item_members.h"

#include <gmock/gmock.h>

#include <sstream>

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Values;

namespace {

const std::string NO_NETWORK = "Network error, please check!";
const std::string TRY_LATER = "Try again later.";

// The parts in which one request of the engine differs from the others.
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

    /// First steps of a request, up to the answer about the gateway.
    static Steps asked(const Line& tGateway)
    {
        return {ENGINE_LINES.debug(GetParam().szName, "[START] "),
                Asked("connection_profile_check_default_gateway"), tGateway};
    }
    static Steps handedOver()
    {
        return asked(ENGINE_LINES.info("m_CheckNetWorkStats", "Get Network status: 1")) +
               These(Did(GetParam().szProtocol));
    }
    Steps refused()
    {
        std::ostringstream user;
        user << "pReturnInfo->pUser " << caller();
        return {ENGINE_LINES.info("m_WriteRequestResultToPipe", user.str()), Did("pipe write")};
    }
    static Steps end() { return {ENGINE_LINES.debug(GetParam().szName, "[END] ")}; }
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
    EXPECT_EQ(Timeline(), handedOver() + end());
    EXPECT_THAT(m_results, IsEmpty());
}

TEST_P(EveryRequest, IsAnsweredWithNetworkErrorWithoutAGateway)
{
    fake::platform().gateway(false);

    EXPECT_FALSE(call());

    EXPECT_THAT(m_results, IsEmpty()) << "the reply comes on a later turn of the loop";
    EXPECT_THAT(resultsOnPipe(1),
                ElementsAre(Result{GetParam().eType, 1160003, NO_NETWORK, caller()}));
    EXPECT_EQ(Timeline(),
              asked(ENGINE_LINES.info("m_CheckNetWorkStats", "Get Network status: 0")) + refused());
}

TEST_P(EveryRequest, IsAnsweredWithNetworkErrorWhenTheGatewayCannotBeAsked)
{
    for (const int iError : {5, -5, 1, -1}) {
        m_results.clear();
        fake::platform().clearTimeline();
        fake::platform().gatewayFails(iError);

        EXPECT_FALSE(call());

        EXPECT_THAT(resultsOnPipe(1),
                    ElementsAre(Result{GetParam().eType, 1160003, NO_NETWORK, caller()}));
        EXPECT_EQ(Timeline(),
                  asked(ENGINE_LINES.error("m_CheckNetWorkStats", "Get Network status failed: " +
                                                                      std::to_string(iError))) +
                      refused());
    }
}

TEST_P(EveryRequest, IsAnsweredWithTryAgainLaterWhenTheProtocolLayerRefuses)
{
    Protocol().bAccepts = false;

    EXPECT_FALSE(call());

    EXPECT_THAT(resultsOnPipe(1),
                ElementsAre(Result{GetParam().eType, 1160003, TRY_LATER, caller()}));
    EXPECT_EQ(Timeline(), handedOver() + refused() + end());
}

TEST_P(EveryRequest, StaysUnansweredWithoutMemoryForItsContext)
{
    FailNothrowAllocation(1);

    EXPECT_FALSE(call());

    ecore_main_loop_iterate_may_block(EINA_FALSE);
    EXPECT_THAT(m_results, IsEmpty());
    EXPECT_THAT(Timeline(), ElementsAre(ENGINE_LINES.debug(GetParam().szName, "[START] "),
                                        ENGINE_LINES.refused(GetParam().szName, "NULL == ptReq")));
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

    EXPECT_THAT(Timeline(),
                ElementsAre(ENGINE_LINES.debug(GetParam().szCallback, "[START] "),
                            ENGINE_LINES.refused(GetParam().szCallback, "NULL == pUserData")));
}

TEST_P(EveryRequest, ItsCallbackIsSilentAboutAMissingOwner)
{
    std::string strBody = "body";

    GetParam().pfnCallback(false, strBody, new EngineRequestContext{nullptr, caller(), false});

    ecore_main_loop_iterate_may_block(EINA_FALSE);
    EXPECT_THAT(m_results, IsEmpty());
    EXPECT_THAT(Timeline(), ElementsAre(ENGINE_LINES.debug(GetParam().szCallback, "[START] ")));
}

TEST_F(AnEngine, PassesTheItemOnAsItCame)
{
    m_oEngine.GetProducts(FullItem(), caller());
    m_oEngine.GetAppliedTime(FullItem(), caller());
    m_oEngine.ConfirmPurchase(FullItem(), caller());

    ASSERT_EQ(Protocol().calls.size(), 3u);
    for (const ProtocolCall& call : Protocol().calls) {
        EXPECT_EQ(FilledMembers(call.oItem), FilledMembers(FullItem())) << call.strOperation;
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

class AnEnginesLife : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::platform().reset();
        Protocol() = ProtocolDouble();
    }
    void TearDown() override { Pipe() = PipeDouble(); }
};

TEST_F(AnEnginesLife, BeginsWithAnEmptyItemAndNoPipeAndEndsWithALine)
{
    {
        const CBillingEngine oEngine;
        EXPECT_EQ(EngineProbe::pipe(oEngine), nullptr);
    }
    EXPECT_THAT(LoggedLines(), ElementsAre(ENGINE_LINES.debug("~CBillingEngine", "[END] ")));
}

TEST_F(AnEnginesLife, SaysThatThereIsNoPipe)
{
    CBillingEngine oEngine;
    Pipe().bAddFails = true;

    EXPECT_FALSE(oEngine.RegisterPipeCallback(AnEngine::Receive, nullptr));

    EXPECT_THAT(Timeline(),
                ElementsAre(Did("pipe add"), ENGINE_LINES.error("RegisterPipeCallback",
                                                                "ecore_pipe_add() return NULL!")));
}

TEST_F(AnEnginesLife, KeepsAPipeOfTheDefaultSize)
{
    CBillingEngine oEngine;
    Pipe().bSizeFails = true;

    EXPECT_TRUE(oEngine.RegisterPipeCallback(AnEngine::Receive, nullptr));

    EXPECT_THAT(Timeline(),
                ElementsAre(Did("pipe add"),
                            ENGINE_LINES.error(
                                "RegisterPipeCallback",
                                "the result pipe keeps its default size, results may be lost "
                                "in a burst: Operation not permitted")));
    oEngine.Destroy();
}

TEST_F(AnEnginesLife, CreateGivesTheConnectorsOwnResult)
{
    CBillingEngine oEngine;
    EXPECT_TRUE(oEngine.Create());
    Protocol().bConnectorCreates = false;
    EXPECT_FALSE(oEngine.Create());
    EXPECT_THAT(Timeline(), ElementsAre(Did("connector construct"), Did("connector Create"),
                                        Did("connector Create")));
    oEngine.Destroy();
}

TEST_F(AnEnginesLife, CreateRefusesWithoutMemoryForTheConnector)
{
    CBillingEngine oEngine;
    FailNothrowAllocation(1);

    EXPECT_FALSE(oEngine.Create());

    EXPECT_THAT(Timeline(), ElementsAre(ENGINE_LINES.refused("Create", "NULL == poConnector")));
}

TEST_F(AnEnginesLife, DestroyWithoutCreateMakesAConnectorOnlyToDestroyIt)
{
    CBillingEngine oEngine;

    oEngine.Destroy();

    EXPECT_EQ(CBillingSingleton<CHttpConnector>::m_pObj, nullptr);
    EXPECT_THAT(
        Timeline(),
        ElementsAre(Did("connector construct"), Did("connector Destroy"), Did("connector destruct"),
                    ENGINE_LINES.info("Destroy", "Destroy HttpConnector successfully.")));
}

TEST_F(AnEnginesLife, DestroyDeletesThePipeBeforeItStopsTheConnector)
{
    CBillingEngine oEngine;
    EXPECT_TRUE(oEngine.RegisterPipeCallback(AnEngine::Receive, nullptr));
    EXPECT_TRUE(oEngine.Create());

    oEngine.Destroy();

    EXPECT_EQ(EngineProbe::pipe(oEngine), nullptr);
    EXPECT_THAT(Timeline(),
                ElementsAre(Did("pipe add"), Did("connector construct"), Did("connector Create"),
                            Did("pipe del"), Did("connector Destroy"), Did("connector destruct"),
                            ENGINE_LINES.info("Destroy", "Destroy HttpConnector successfully.")));
}

TEST_F(AnEnginesLife, DestroyIsSilentWithoutMemoryForTheConnector)
{
    CBillingEngine oEngine;
    FailNothrowAllocation(1);

    oEngine.Destroy();

    EXPECT_EQ(Timeline(), Steps());
}

}  // namespace
