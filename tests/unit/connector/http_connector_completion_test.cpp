// http_connector_completion_test.cpp - from a transfer's end to the callback: the call, what is freed, and
// the loop's turns in between.
#include "connector_fixture.h"

#include <gmock/gmock.h>
#include <malloc.h>

#include <cstdio>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

TEST_F(AConnector, CallsBackOnceWithTheBodyAndFreesTheRequest)
{
    _BILLING_REQ_HANDLER_t* ptHandler = submit();
    fake::platform().clearTimeline();

    finish(ptHandler, true, "the body");

    ASSERT_EQ(Answers().size(), 1u);
    EXPECT_TRUE(Answers()[0].bSuccess);
    EXPECT_EQ(Answers()[0].strBody, "the body");
    EXPECT_EQ(Answers()[0].pUser, this);
    EXPECT_EQ(ConnectorProbe::inFlight(), 0u);
    EXPECT_THAT(
        Timeline(),
        ElementsAre(CONNECTOR.debug("m_HandleRequestResult", "[START] "), Did("remove (multi)"),
                    Did("reset"), Did("callback"), CONNECTOR.debug("m_RemoveRequest", "[START] "),
                    Did("destruct (lists)"), CONNECTOR.debug("m_RemoveRequest", "[END] "),
                    CONNECTOR.debug("m_HandleRequestResult", "[END] ")));
}

TEST_F(AConnector, KeepsNoMemoryOfARequest)
{
    const auto make = [&](int iRequests) {
        for (int i = 0; i < iRequests; ++i) {
            _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
            tInfo.strBody.assign(10000, 'b');
            EXPECT_TRUE(m_connector->Get(&tInfo, false));
            finish(ConnectorProbe::last(), true, "");
            Answers().clear();
            Curl().options.clear();
            fake::platform().clearTimeline();
        }
    };
    make(10);
    const std::size_t uBefore = mallinfo2().uordblks;
    make(200);
    // Each request that is kept takes more than 10,000 bytes.
    EXPECT_LT(mallinfo2().uordblks, uBefore + 1000000);
}

TEST_F(AConnector, LocksTheListsForTheSearchAndForTheRemoval)
{
    _BILLING_REQ_HANDLER_t* const ptHandler = submit();
    const std::size_t uBefore = ConnectorProbe::timesListsLocked();

    finish(ptHandler, true, "");

    EXPECT_EQ(ConnectorProbe::timesListsLocked(), uBefore + 2);
}

TEST_F(AConnector, CallsBackWithFailureAndWhateverArrived)
{
    _BILLING_REQ_HANDLER_t* ptHandler = submit();
    fake::platform().clearTimeline();

    finish(ptHandler, false, "half");

    ASSERT_EQ(Answers().size(), 1u);
    EXPECT_FALSE(Answers()[0].bSuccess);
    EXPECT_EQ(Answers()[0].strBody, "half");
    EXPECT_THAT(Timeline(),
                ElementsAre(CONNECTOR.debug("m_HandleRequestResult", "[START] "),
                            Did("remove (multi)"), Did("reset"),
                            CONNECTOR.error("m_HandleRequestResult",
                                            "MZCurl multiResult ErrorCode = 7;  ErrMsg = reason!"),
                            Did("callback"), CONNECTOR.debug("m_RemoveRequest", "[START] "),
                            Did("destruct (lists)"), CONNECTOR.debug("m_RemoveRequest", "[END] "),
                            CONNECTOR.debug("m_HandleRequestResult", "[END] ")));
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
    EXPECT_THAT(Answers(), IsEmpty());
    EXPECT_THAT(Notes(), IsEmpty()) << "neither removed nor freed";
}

TEST_F(AConnector, GoesOnWithoutTheCrossCheckWhenTheSecondListLacksTheHandler)
{
    _BILLING_REQ_HANDLER_t* ptHandler = submit();
    ConnectorProbe::dropFromBak();

    finish(ptHandler, true, "body");

    EXPECT_EQ(Answers().size(), 1u);
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
    // The callback removes the request from the lists only; the test frees the objects below.
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

    fake::platform().clearTimeline();

    m_probe->completed();

    EXPECT_THAT(Notes(),
                ElementsAre("InfoRead", "getInfo 39", "remove (multi)", "reset", "callback",
                            "destruct (lists)", "InfoRead", "getInfo 39", "remove (multi)", "reset",
                            "callback", "destruct (lists)", "InfoRead"));
    EXPECT_EQ(Answers().size(), 2u);
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
    EXPECT_THAT(Answers(), IsEmpty());
}

TEST_F(AConnector, TurnsTheLoopAsLongAsTransfersRun)
{
    Curl().iRunning = 2;

    EXPECT_EQ(CHttpConnector::HandleRequest(m_connector.get()), 0);

    EXPECT_THAT(Timeline(),
                ElementsAre(CONNECTOR.debug("HandleRequest", "[START] "),
                            CONNECTOR.debug("m_DoMultiPerform", "[START] "), Did("Perform (multi)"),
                            CONNECTOR.debug("m_DoMultiPerform", "[END] "), Did("fdSelect"),
                            Did("InfoRead"), Did("fdSelect"), Did("InfoRead"), Did("fdSelect"),
                            Did("InfoRead"), CONNECTOR.debug("HandleRequest", "[END] ")));
}

TEST_F(AConnector, OnlyLogsThatTheMultiHandleFailed)
{
    Curl().bPerformFails = true;
    Curl().bSelectFails = true;
    Curl().iRunning = 1;
    int iRunning = 0;
    m_probe->perform(iRunning);
    EXPECT_FALSE(m_probe->select(iRunning));
    Curl().bSelectFails = false;
    EXPECT_TRUE(m_probe->select(iRunning));

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

    EXPECT_THAT(
        Timeline(),
        ElementsAre(Did("remove (multi)"),
                    CONNECTOR.error("m_RemoveEasyHandle",
                                    "[MZCurl][MZCurlMulti][removeHandle()] return false!")));
    Curl().bRemoveFails = false;
    EXPECT_TRUE(m_probe->remove(&oEasy));
}

}  // namespace
