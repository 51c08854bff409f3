// dbus_manager_calls_test.cpp - CDBusManager's method calls on their way to the engine, and the
// replies on their way back.
#include "BillingLog.h"
#include "allocation_switch.h"
#include "dbus_manager_doubles.h"
#include "item_members.h"

#include <gmock/gmock.h>
#include <malloc.h>

#include <algorithm>
#include <csignal>
#include <new>
#include <stdexcept>

using ::testing::ElementsAre;

namespace {

const guint32 PENDING_AT_START = CDBusManager::GetDbusProcessListNum();

TEST(PendingCalls, AreNoneAtTheStart)
{
    EXPECT_EQ(PENDING_AT_START, 0u);
}

// --- calls ---

const std::string CALL = "m_HandleMethodCall";

// Steps at the start of every call, up to the line of its method.
Steps Taken(const std::string& strMethod, const std::string& strParameters)
{
    return {MANAGER.plainInfo(CALL, "method name = " + strMethod + "\n"),
            MANAGER.plainInfo(CALL, "parameters = " + strParameters + "\n")};
}

struct Handed {
    const char* szMethod;
    const char* szParameters;
    const char* szOperation;
    const char* szReturns;
    std::map<std::size_t, std::string> filled;
};

std::ostream& operator<<(std::ostream& out, const Handed& handed)
{
    return out << handed.szMethod;
}

class EveryCall : public ADBusManager, public ::testing::WithParamInterface<Handed> {};

INSTANTIATE_TEST_SUITE_P(
    Calls, EveryCall,
    ::testing::Values(
        Handed{"get_product_list",
               "('app', 'type', 'check')",
               "GetProducts",
               "GetProducts return %",
               {{10, "app"}, {11, "type"}, {12, "check"}}},
        Handed{"get_applied_time",
               "('app', 'custom', 'invoice', 'type')",
               "GetAppliedTime",
               "GetAppliedTime return %",
               {{6, "custom"}, {10, "app"}, {11, "type"}, {18, "invoice"}}},
        Handed{
            "get_purchase_history",
            "('app', 'custom', 'item', 'page', 'check', 'type')",
            "PurchaseHistory",
            "PurchaseHistory return %",
            {{6, "custom"}, {10, "app"}, {11, "type"}, {12, "check"}, {13, "item"}, {14, "page"}}},
        Handed{"confirm_purchase",
               "('app', 'custom', 'invoice', 'type')",
               "ConfirmPurchase",
               "ConfirmPurchase return %",
               {{6, "custom"}, {10, "app"}, {11, "type"}, {18, "invoice"}}},
        Handed{"check_server_availability",
               "()",
               "CheckServerAvailability",
               "check_server_availability return %,",
               {}}),
    [](const auto& handed) { return std::string(handed.param.szMethod); });

// Refusals are answered through the pipe, so they count.
TEST_P(EveryCall, IsHandedOverWithItsArgumentsAndCountedWhateverTheEngineAnswers)
{
    for (const bool bResult : {true, false}) {
        Engine() = EngineDouble();
        Engine().bResult = bResult;
        fake::platform().clearTimeline();
        g_iPendingCallCount = 5;
        fake::platform().onLog([](const fake::LogRecord&) {
            EXPECT_EQ(g_iPendingCallCount, 5u) << "the count comes after the last line";
        });
        std::string strReturns = GetParam().szReturns;
        strReturns.replace(strReturns.find('%'), 1, bResult ? "1" : "0");

        call(GetParam().szMethod, GetParam().szParameters);

        EXPECT_EQ(Timeline(),
                  Taken(GetParam().szMethod, GetParam().szParameters) +
                      These(MANAGER.info(CALL, std::string("handle ") + GetParam().szMethod),
                            Did(GetParam().szOperation), MANAGER.info(CALL, strReturns)));
        EXPECT_EQ(FilledMembers(Engine().oItem), GetParam().filled);
        EXPECT_EQ(Engine().pUser, invocation());
        EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 6u);
    }
}

TEST_F(ADBusManager, AsksForTheAvailabilityWithAnEmptyText)
{
    call("check_server_availability", "()");

    EXPECT_EQ(Engine().strText, "[]");
}

TEST_F(ADBusManager, PrintsParametersWithTypeAnnotations)
{
    GVariant* pParameters = g_variant_ref_sink(g_variant_new("(u)", 5u));
    CDBusManager::m_HandleMethodCall(nullptr, nullptr, nullptr, nullptr, "other", pParameters,
                                     invocation(), m_pManager);
    g_variant_unref(pParameters);

    EXPECT_EQ(Timeline(), Taken("other", "(uint32 5,)"));
}

TEST_F(ADBusManager, PrintsNoParametersForALogThatHidesThem)
{
    fake::platform().logShowsPrivate(false);

    call("get_product_list", "('app', 'type', 'check')");
    call("get_everything", "('app',)");
    call("check_server_availability", "()");

    std::vector<std::string> shown;
    for (const Line& line : LoggedLines()) {
        if (line.strText.rfind("parameters = ", 0) == 0) {
            shown.push_back(line.strText.substr(13));
        }
    }
    EXPECT_THAT(shown, ElementsAre(std::string(24, ' ') + "\n", std::string(8, ' ') + "\n",
                                   std::string(2, ' ') + "\n"))
        << "blanks in their size";
}

TEST_F(ADBusManager, PrintsNoMoreBlanksThanTheLongestArgumentsHave)
{
    fake::platform().logShowsPrivate(false);
    for (const std::size_t uText : {8000, 8192, 9000}) {
        call("get_product_list", ("('', '', '" + std::string(uText, 'c') + "')").c_str());
        // Three texts have 12 characters besides: brackets, quotes, commas and blanks.
        EXPECT_EQ(
            LoggedLines().at(1).strText,
            "parameters = " + std::string(std::min<std::size_t>(uText + 12, 8256), ' ') + "\n");
        fake::platform().clearLog();
    }
}

TEST_F(ADBusManager, KeepsNoMemoryOfACall)
{
    fake::platform().logShowsPrivate(false);
    const std::string strParameters = "('app', 'type', '" + std::string(8000, 'c') + "')";
    const auto take = [&](int iCalls) {
        for (int i = 0; i < iCalls; ++i) {
            call("get_product_list", strParameters.c_str());
            fake::platform().clearTimeline();
        }
    };
    take(10);
    const std::size_t uBefore = mallinfo2().uordblks;
    take(300);
    // Each call that is kept takes more than 8,000 bytes.
    EXPECT_LT(mallinfo2().uordblks, uBefore + 1000000);
}

TEST_F(ADBusManager, IgnoresAnUnknownMethod)
{
    for (const char* szMethod : {"get_everything", "get_product_lis", "get_product_list2", ""}) {
        fake::platform().clearTimeline();

        call(szMethod, "('app',)");

        EXPECT_EQ(Timeline(), Taken(szMethod, "('app',)")) << "and nothing else";
        EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 0u);
    }
}

TEST_F(ADBusManager, LeavesACallWithoutManagerUnanswered)
{
    m_pManager = nullptr;

    call("get_product_list", "('app', 'type', 'check')");

    EXPECT_EQ(Timeline(), Taken("get_product_list", "('app', 'type', 'check')") +
                              These(MANAGER.plainError(CALL, "DBusManager instance is NULL")));
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 0u);
}

TEST_F(ADBusManager, LeavesACallWithoutEngineUnanswered)
{
    FailNothrowAllocation(1);

    call("get_product_list", "('app', 'type', 'check')");

    EXPECT_EQ(Timeline(), Taken("get_product_list", "('app', 'type', 'check')") +
                              These(MANAGER.info(CALL, "handle get_product_list"),
                                    MANAGER.refused(CALL, "NULL == poBLEngine")));
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 0u);
}

TEST_F(ADBusManager, CountsFrom65279BackToOne)
{
    g_iPendingCallCount = 65278;
    call("check_server_availability", "()");
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 65279u);

    call("check_server_availability", "()");
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 1u);
}

TEST_F(ADBusManager, AnswersACallWithAnErrorWhenMakingItsRequestThrows)
{
    struct Failure {
        std::function<void()> fails;
        const char* szLine;
        const char* szAnswer;
    };
    const Failure failures[] = {
        {[] { throw std::bad_alloc(); },
         "no memory for the call's arguments, it is answered with an error",
         "error org.freedesktop.DBus.Error.NoMemory: no memory for the arguments"},
        {[] { throw std::runtime_error("the reason"); },
         "the call cannot be made, it is answered with an error: the reason",
         "error org.freedesktop.DBus.Error.Failed: the call cannot be made"}};
    for (const Failure& tFailure : failures) {
        Bus() = BusDouble();
        fake::platform().clearTimeline();
        Engine().fails = tFailure.fails;
        g_iPendingCallCount = 5;

        call("confirm_purchase", "('app', 'custom', 'invoice', 'type')");

        EXPECT_EQ(Timeline(),
                  Taken("confirm_purchase", "('app', 'custom', 'invoice', 'type')") +
                      These(MANAGER.info(CALL, "handle confirm_purchase"), Did("ConfirmPurchase"),
                            MANAGER.error(CALL, tFailure.szLine), Did(tFailure.szAnswer)));
        EXPECT_EQ(Bus().pAnswered, invocation());
        EXPECT_EQ(g_iPendingCallCount, 5u);
    }
}

// --- replies ---

const std::string ANSWER = "m_PipeCallback";

// Steps of a reply, from the line of the record to the end.
Steps Answered(int iResult, const std::string& strInfo, const std::string& strReply)
{
    return {MANAGER.plainInfo(ANSWER, "START"),
            MANAGER.info(ANSWER, "m_PipeCallback >>> iRespResult:[" + std::to_string(iResult) +
                                     "],strRespInfo[" + strInfo + "]=="),
            Did("deleted"),
            Did("reply " + strReply),
            MANAGER.plainInfo(ANSWER, "g_dbus_method_invocation_return_value"),
            MANAGER.plainInfo(ANSWER, "g_dbus_method_invocation_return_value")};
}

TEST_F(ADBusManager, AnswersACallWithWhatThePipeBrings)
{
    for (const int iResult : {0, -1, 1160003}) {
        g_iPendingCallCount = 2;
        fake::platform().clearTimeline();

        deliver(&m_oManager, iResult, "{\"a\":1}", invocation());

        EXPECT_EQ(Timeline(),
                  Answered(iResult, "{\"a\":1}", std::to_string(iResult) + " {\"a\":1}"));
        EXPECT_EQ(Bus().pAnswered, invocation());
        EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 1u);
    }
}

TEST_F(ADBusManager, CountsACallAsAnsweredBetweenTheTwoLinesOfItsReply)
{
    g_iPendingCallCount = 2;
    std::vector<guint32> counts;
    fake::platform().onLog([&](const fake::LogRecord&) { counts.push_back(g_iPendingCallCount); });

    deliver(&m_oManager, 0, "body", invocation());

    EXPECT_THAT(counts, ElementsAre(2, 2, 2, 1));
}

TEST_F(ADBusManager, LogsOnBehalfOfTheCallerWhileItsCallComesInAndIsAnswered)
{
    call("get_product_list", "('app', 'type', 'check')");
    BILLING_INFO("between");
    Bus().strSender = ":1.6";
    deliver(&m_oManager, 0, "{}", invocation());
    deliver(&m_oManager, 0, "{}", nullptr);

    std::vector<std::string> callers;
    for (const fake::LogRecord& record : fake::platform().log()) {
        callers.push_back(record.strCaller);
    }
    EXPECT_THAT(callers, ElementsAre(":1.5", ":1.5", ":1.5", ":1.5", "", "", ":1.6", ":1.6", ":1.6",
                                     "", "", ""));
}

// Ecore calls the reader with null when it has no memory for a message; the pipe is closed then.
TEST_F(ADBusManager, EndsTheServiceWhenThePipeHasFailed)
{
    static volatile std::sig_atomic_t g_iTerminated;
    g_iTerminated = 0;
    const auto pfnBefore = std::signal(SIGTERM, [](int) { ++g_iTerminated; });
    fake::platform().onLog([](const fake::LogRecord&) {
        EXPECT_EQ(g_iTerminated, 0) << "the signal comes after the last line";
    });

    CDBusManager::m_PipeCallback(&m_oManager, nullptr, 0);

    std::signal(SIGTERM, pfnBefore);
    EXPECT_EQ(g_iTerminated, 1);
    EXPECT_THAT(Timeline(), ElementsAre(MANAGER.plainInfo("m_PipeCallback", "START"),
                                        MANAGER.error("m_PipeCallback",
                                                      "the result pipe has failed for want of "
                                                      "memory, the service ends")));
}

TEST_F(ADBusManager, AnswersNobodyWithoutAnInvocation)
{
    g_iPendingCallCount = 2;

    deliver(&m_oManager, 0, "body", nullptr);

    EXPECT_THAT(
        Timeline(),
        ElementsAre(MANAGER.plainInfo(ANSWER, "START"),
                    MANAGER.info(ANSWER, "m_PipeCallback >>> iRespResult:[0],strRespInfo[body]=="),
                    Did("deleted"),
                    MANAGER.plainError(ANSWER, "GDBusMethodInvocation invocation is NULL")));
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 2u);
}

TEST_F(ADBusManager, AnswersNobodyWithoutManagerOrRecord)
{
    BILLING_RETURN_INFO_T tInfo;
    BILLING_RETURN_INFO_T* pInfo = &tInfo;
    CDBusManager::m_PipeCallback(nullptr, &pInfo, sizeof pInfo);
    pInfo = nullptr;
    CDBusManager::m_PipeCallback(&m_oManager, &pInfo, sizeof pInfo);

    EXPECT_THAT(Timeline(), ElementsAre(MANAGER.plainInfo(ANSWER, "START"),
                                        MANAGER.plainInfo(ANSWER, "START")));
}

TEST_F(ADBusManager, MakesABodyValidForTheBus)
{
    deliver(&m_oManager, 0, std::string("a\0b\xff", 4), invocation());

    EXPECT_EQ(Timeline(), Answered(0, "a", "0 a\uFFFDb\uFFFD")) << "the log ends at the NUL";
}

TEST_F(ADBusManager, AnswersABodyThatTheBusCannotCarryAsFailed)
{
    deliver(&m_oManager, 0, std::string(33554376, 'x'), invocation());

    const Steps timeline = Timeline();
    ASSERT_EQ(timeline.size(), 7u);
    EXPECT_EQ(
        timeline[3],
        MANAGER.error(ANSWER,
                      "the response does not fit the bus or the memory, it is answered as failed"));
    EXPECT_EQ(timeline[4], Did("reply -1 "));
}

}  // namespace
