// engine_results_test.cpp - results from the protocol layer's callbacks through CBillingEngine's pipe to its
// reader, also with a full pipe or while the engine is destroyed.
#include "allocation_switch.h"
#include "engine_fixture.h"
#include "heap_double.h"
#include "held_locks.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <sstream>
#include <thread>

using ::testing::ElementsAre;

namespace {

class ResponseCallbacks : public AnEngine {
protected:
    std::vector<Line> linesOf(ResponseCallback pfnCallback, bool bSuccess)
    {
        std::string strBody = "body";
        pfnCallback(bSuccess, strBody, new EngineRequestContext{&m_oEngine, nullptr, false});
        resultsOnPipe(1);
        return Timeline();
    }
    static Line noted()
    {
        return ENGINE_LINES.info("m_WriteRequestResultToPipe", "pReturnInfo->pUser (nil)");
    }
    static Line written() { return Did("pipe write"); }
};

TEST_F(ResponseCallbacks, PurchaseHistoryLogsNeitherCodeNorBody)
{
    EXPECT_THAT(
        linesOf(CBillingEngine::m_PurchaseHistoryCB, false),
        ElementsAre(ENGINE_LINES.debug("m_PurchaseHistoryCB", "[START] "),
                    ENGINE_LINES.error("m_PurchaseHistoryCB", "m_PurchaseHistoryCB Http error! "),
                    noted(), written(), ENGINE_LINES.debug("m_PurchaseHistoryCB", "[END] ")));
}

TEST_F(ResponseCallbacks, GetProductsLogsCodeAndBody)
{
    EXPECT_THAT(linesOf(CBillingEngine::m_GetProductsCB, true),
                ElementsAre(ENGINE_LINES.debug("m_GetProductsCB", "[START] "),
                            ENGINE_LINES.info("m_GetProductsCB", "bResponseCode :1"),
                            ENGINE_LINES.info("m_GetProductsCB", "strRsp :body"), noted(),
                            written(), ENGINE_LINES.debug("m_GetProductsCB", "[END] ")));
}

TEST_F(ResponseCallbacks, GetProductsLogsItsError)
{
    EXPECT_THAT(linesOf(CBillingEngine::m_GetProductsCB, false),
                ElementsAre(ENGINE_LINES.debug("m_GetProductsCB", "[START] "),
                            ENGINE_LINES.error("m_GetProductsCB", "m_GetProductsCB Http error! "),
                            ENGINE_LINES.info("m_GetProductsCB", "bResponseCode :0"),
                            ENGINE_LINES.info("m_GetProductsCB", "strRsp :body"), noted(),
                            written(), ENGINE_LINES.debug("m_GetProductsCB", "[END] ")));
}

TEST_F(ResponseCallbacks, GetAppliedTimeLogsErrorCodeAndBody)
{
    EXPECT_THAT(
        linesOf(CBillingEngine::m_GetAppliedTimeCB, false),
        ElementsAre(ENGINE_LINES.debug("m_GetAppliedTimeCB", "[START] "),
                    ENGINE_LINES.error("m_GetAppliedTimeCB", "m_GetAppliedTimeCB Http error! "),
                    ENGINE_LINES.info("m_GetAppliedTimeCB", "bResponseCode :0"),
                    ENGINE_LINES.info("m_GetAppliedTimeCB", "strRsp :body"), noted(), written(),
                    ENGINE_LINES.debug("m_GetAppliedTimeCB", "[END] ")));
}

TEST_F(ResponseCallbacks, ConfirmPurchaseLogsErrorCodeAndBody)
{
    EXPECT_THAT(
        linesOf(CBillingEngine::m_ConfirmPurchaseCB, false),
        ElementsAre(ENGINE_LINES.debug("m_ConfirmPurchaseCB", "[START] "),
                    ENGINE_LINES.error("m_ConfirmPurchaseCB", "m_ConfirmPurchaseCB Http error! "),
                    ENGINE_LINES.info("m_ConfirmPurchaseCB", "bResponseCode :0"),
                    ENGINE_LINES.info("m_ConfirmPurchaseCB", "strRsp :body"), noted(), written(),
                    ENGINE_LINES.debug("m_ConfirmPurchaseCB", "[END] ")));
}

TEST_F(ResponseCallbacks, CheckServerAvailabilityLogsWithAnArrowAndNoTrailingBlank)
{
    const std::string strName = "m_CheckServerAvailabilityCB";
    EXPECT_THAT(linesOf(CBillingEngine::m_CheckServerAvailabilityCB, false),
                ElementsAre(ENGINE_LINES.debug(strName, "[START] "),
                            ENGINE_LINES.error(strName, "m_CheckServerAvailabilityCB Http error!"),
                            ENGINE_LINES.info(strName, "-------> bResponseCode :0"),
                            ENGINE_LINES.info(strName, "-------> strRsp :body"), noted(), written(),
                            ENGINE_LINES.debug(strName, "[END] ")));
}

// Allocation 1 copies the response for the record; allocation 2 copies the record for the pipe.
TEST_F(ResponseCallbacks, AnswerAsFailedWhatFindsNoMemory)
{
    for (const int iAllocation : {1, 2}) {
        m_results.clear();
        fake::platform().clearTimeline();
        std::string strBody(5000, 'x');
        auto* pContext = new EngineRequestContext{&m_oEngine, caller(), false};
        std::ostringstream user;
        user << "pReturnInfo->pUser " << caller();
        FailLargeAllocation(5000, iAllocation);

        CBillingEngine::m_PurchaseHistoryCB(true, strBody, pContext);

        EXPECT_THAT(resultsOnPipe(1), ElementsAre(Result{5, -1, "", caller()}));
        EXPECT_THAT(
            Timeline(),
            ElementsAre(ENGINE_LINES.debug("m_PurchaseHistoryCB", "[START] "),
                        ENGINE_LINES.error("m_PurchaseHistoryCB",
                                           "no memory for the response, it is answered as failed"),
                        ENGINE_LINES.info("m_WriteRequestResultToPipe", user.str()), written(),
                        ENGINE_LINES.debug("m_PurchaseHistoryCB", "[END] ")));
    }
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

TEST_F(AnEngine, MovesALargeTextAndCountsItUntilItsReaderLetsGo)
{
    constexpr std::size_t LARGE = 100000;
    std::string strBody(LARGE, 'x');
    const char* const szText = strBody.data();

    CBillingEngine::m_GetProductsCB(true, strBody,
                                    new EngineRequestContext{&m_oEngine, caller(), false});

    ASSERT_EQ(resultsOnPipe(1).size(), 1u);
    EXPECT_EQ(m_last.strRespInfo.data(), szText) << "no copy was made";
    EXPECT_EQ(m_last.strRespInfo.size(), LARGE);
    EXPECT_NE(m_last.pCount, nullptr);
}

TEST_F(AnEngine, DropsAResultWithoutMemoryForItsRecord)
{
    BILLING_RETURN_INFO_T tInfo;
    FailNothrowAllocation(1);

    m_oEngine.m_WriteRequestResultToPipe(REQUEST_TYPE_GET_PRODUCTS, tInfo);

    EXPECT_THAT(Timeline(), ElementsAre(ENGINE_LINES.refused("m_WriteRequestResultToPipe",
                                                             "NULL == pReturnInfo")));
}

TEST_F(AnEngine, DropsAResultThatComesAfterDestroy)
{
    m_oEngine.Destroy();
    fake::platform().clearTimeline();
    BILLING_RETURN_INFO_T tInfo;

    m_oEngine.m_WriteRequestResultToPipe(REQUEST_TYPE_GET_PRODUCTS, tInfo);

    EXPECT_THAT(Timeline(),
                ElementsAre(ENGINE_LINES.refused("m_WriteRequestResultToPipe", "NULL == m_pPipe")));
}

TEST_F(AnEngine, DropsAResultWhosePipeGoesBetweenTheTwoLocks)
{
    BILLING_RETURN_INFO_T tInfo;
    BeforeLock(2, [this] {
        m_oEngine.Destroy();
        fake::platform().clearTimeline();
    });

    m_oEngine.m_WriteRequestResultToPipe(REQUEST_TYPE_GET_PRODUCTS, tInfo);

    EXPECT_THAT(Timeline(),
                ElementsAre(ENGINE_LINES.refused("m_WriteRequestResultToPipe", "NULL == m_pPipe")));
}

TEST_F(AnEngine, TakesThePipesLockToLookAndToWrite)
{
    // The fixture takes a lock for each record that is written.
    Pipe().bWriteFails = true;
    BILLING_RETURN_INFO_T tInfo;
    bool bTwice = false;
    BeforeLock(2, [&] { bTwice = true; });

    m_oEngine.m_WriteRequestResultToPipe(REQUEST_TYPE_GET_PRODUCTS, tInfo);

    EXPECT_TRUE(bTwice);
    BeforeLock(0, nullptr);
}

TEST_F(AnEngine, SaysThatAReplyIsLostWhenThePipeDoesNotTakeIt)
{
    Pipe().bWriteFails = true;
    BILLING_RETURN_INFO_T tInfo;

    m_oEngine.m_WriteRequestResultToPipe(REQUEST_TYPE_GET_PRODUCTS, tInfo);

    EXPECT_THAT(
        Timeline(),
        ElementsAre(ENGINE_LINES.info("m_WriteRequestResultToPipe", "pReturnInfo->pUser (nil)"),
                    Did("pipe write"),
                    ENGINE_LINES.error("m_WriteRequestResultToPipe",
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
    // More messages than the pipe takes, also with pointers of 32 bits, whose messages are half as large.
    constexpr std::size_t MORE_THAN_THE_PIPE_HOLDS = 200000;
    for (std::size_t i = 0; i < MORE_THAN_THE_PIPE_HOLDS; ++i) {
        m_oEngine.m_WriteRequestResultToPipe(REQUEST_TYPE_GET_PRODUCTS, tInfo);
    }
    const auto lines = LoggedLines();
    const auto lost = static_cast<std::size_t>(
        std::count(lines.begin(), lines.end(),
                   ENGINE_LINES.error("m_WriteRequestResultToPipe",
                                      "the result pipe is full, a reply is lost")));

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

}  // namespace
