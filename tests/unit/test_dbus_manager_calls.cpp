// test_dbus_manager_calls.cpp - CDBusManager's method calls on their way to the engine, and the
// replies on their way back.
#include "BillingLog.h"
#include "allocation_switch.h"
#include "dbus_manager_doubles.h"

#include <gmock/gmock.h>

#include <csignal>
#include <new>
#include <stdexcept>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// --- calls ---

TEST_F(ADBusManager, HandsAProductListOver)
{
    call("get_product_list", "('app', 'type', 'check')");

    EXPECT_EQ(Engine().strOperation, "GetProducts");
    EXPECT_EQ(Engine().pUser, invocation());
    EXPECT_EQ(Engine().oItem.strAppId, "app");
    EXPECT_EQ(Engine().oItem.strServerType, "type");
    EXPECT_EQ(Engine().oItem.strCheckValue, "check");
    EXPECT_EQ(Engine().oItem.strCustomId, "");
    EXPECT_THAT(
        LoggedLines(),
        ElementsAre(
            MANAGER.plainInfo("m_HandleMethodCall", "method name = get_product_list\n"),
            MANAGER.plainInfo("m_HandleMethodCall", "parameters = ('app', 'type', 'check')\n"),
            MANAGER.info("m_HandleMethodCall", "handle get_product_list"),
            MANAGER.info("m_HandleMethodCall", "GetProducts return 1")));
}

TEST_F(ADBusManager, HandsAnAppliedTimeOver)
{
    call("get_applied_time", "('app', 'custom', 'invoice', 'type')");

    EXPECT_EQ(Engine().strOperation, "GetAppliedTime");
    EXPECT_EQ(Engine().oItem.strAppId, "app");
    EXPECT_EQ(Engine().oItem.strCustomId, "custom");
    EXPECT_EQ(Engine().oItem.strInvoiceId, "invoice");
    EXPECT_EQ(Engine().oItem.strServerType, "type");
    EXPECT_THAT(LoggedLines(),
                Contains(MANAGER.info("m_HandleMethodCall", "handle get_applied_time")));
    EXPECT_THAT(LoggedLines(),
                Contains(MANAGER.info("m_HandleMethodCall", "GetAppliedTime return 1")));
}

TEST_F(ADBusManager, HandsAPurchaseHistoryOverWithAllSixArguments)
{
    call("get_purchase_history", "('app', 'custom', 'item', 'page', 'check', 'type')");

    EXPECT_EQ(Engine().strOperation, "PurchaseHistory");
    EXPECT_EQ(Engine().oItem.strAppId, "app");
    EXPECT_EQ(Engine().oItem.strCustomId, "custom");
    EXPECT_EQ(Engine().oItem.strItemType, "item");
    EXPECT_EQ(Engine().oItem.strPageNumber, "page");
    EXPECT_EQ(Engine().oItem.strCheckValue, "check");
    EXPECT_EQ(Engine().oItem.strServerType, "type");
    EXPECT_THAT(LoggedLines(),
                Contains(MANAGER.info("m_HandleMethodCall", "handle get_purchase_history")));
    EXPECT_THAT(LoggedLines(),
                Contains(MANAGER.info("m_HandleMethodCall", "PurchaseHistory return 1")));
}

TEST_F(ADBusManager, HandsAConfirmationOverAndLogsARefusal)
{
    Engine().bResult = false;

    call("confirm_purchase", "('app', 'custom', 'invoice', 'type')");

    EXPECT_EQ(Engine().strOperation, "ConfirmPurchase");
    EXPECT_EQ(Engine().oItem.strAppId, "app");
    EXPECT_EQ(Engine().oItem.strCustomId, "custom");
    EXPECT_EQ(Engine().oItem.strInvoiceId, "invoice");
    EXPECT_EQ(Engine().oItem.strServerType, "type");
    EXPECT_THAT(LoggedLines(),
                Contains(MANAGER.info("m_HandleMethodCall", "handle confirm_purchase")));
    EXPECT_THAT(LoggedLines(),
                Contains(MANAGER.info("m_HandleMethodCall", "ConfirmPurchase return 0")));
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 1u) << "a refusal is answered, so it counts";
}

TEST_F(ADBusManager, HandsAnAvailabilityCheckOverWithAnEmptyText)
{
    call("check_server_availability", "()");

    EXPECT_EQ(Engine().strOperation, "CheckServerAvailability");
    EXPECT_EQ(Engine().strText, "[]");
    EXPECT_THAT(LoggedLines(),
                Contains(MANAGER.info("m_HandleMethodCall", "handle check_server_availability")));
    EXPECT_THAT(LoggedLines(), Contains(MANAGER.info("m_HandleMethodCall",
                                                     "check_server_availability return 1,")));
}

TEST_F(ADBusManager, PrintsParametersWithTypeAnnotations)
{
    GVariant* pParameters = g_variant_ref_sink(g_variant_new("(u)", 5u));
    CDBusManager::m_HandleMethodCall(nullptr, nullptr, nullptr, nullptr, "other", pParameters,
                                     invocation(), m_pManager);
    g_variant_unref(pParameters);

    EXPECT_THAT(LoggedLines(),
                Contains(MANAGER.plainInfo("m_HandleMethodCall", "parameters = (uint32 5,)\n")));
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

TEST_F(ADBusManager, IgnoresAnUnknownMethod)
{
    call("get_everything", "('app',)");

    EXPECT_EQ(Engine().strOperation, "");
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 0u);
    EXPECT_THAT(Bus().replies, IsEmpty());
    EXPECT_EQ(LoggedLines().size(), 2u) << "name and parameters, nothing else";
}

TEST_F(ADBusManager, LeavesACallWithoutManagerUnanswered)
{
    m_pManager = nullptr;

    call("get_product_list", "('app', 'type', 'check')");

    EXPECT_EQ(Engine().strOperation, "");
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 0u);
    EXPECT_THAT(Bus().replies, IsEmpty());
    EXPECT_EQ(LoggedLines().back(),
              MANAGER.plainError("m_HandleMethodCall", "DBusManager instance is NULL"));
}

TEST_F(ADBusManager, LeavesACallWithoutEngineUnanswered)
{
    FailNothrowAllocation(1);

    call("get_product_list", "('app', 'type', 'check')");

    EXPECT_EQ(Engine().strOperation, "");
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 0u);
    EXPECT_THAT(Bus().replies, IsEmpty());
    EXPECT_EQ(LoggedLines().back(), MANAGER.refused("m_HandleMethodCall", "NULL == poBLEngine"));
}

TEST_F(ADBusManager, CountsFrom65279BackToOne)
{
    g_iPendingCallCount = 65278;
    call("check_server_availability", "()");
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 65279u);

    call("check_server_availability", "()");
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 1u);
}

// Libraries have exceptions of their own for a lack of memory: the JSON library's is no bad_alloc.
TEST_F(ADBusManager, AnswersACallWithAnErrorWhenMakingItsRequestThrows)
{
    const std::function<void()> failures[] = {[] { throw std::bad_alloc(); },
                                              [] { throw std::runtime_error("no memory"); }};
    for (const auto& fails : failures) {
        Bus() = BusDouble();
        Engine().fails = fails;
        g_iPendingCallCount = 5;

        call("confirm_purchase", "('app', 'custom', 'invoice', 'type')");

        EXPECT_THAT(
            Bus().errors,
            ElementsAre("org.freedesktop.DBus.Error.NoMemory: no memory for the arguments"));
        EXPECT_THAT(Bus().answered, ElementsAre(invocation()));
        EXPECT_EQ(g_iPendingCallCount, 5);
        EXPECT_THAT(LoggedLines(),
                    Contains(MANAGER.error("m_HandleMethodCall",
                                           "no memory for the call's arguments, it is answered "
                                           "with an error")));
    }
}

// --- replies ---

TEST_F(ADBusManager, AnswersACallWithWhatThePipeBrings)
{
    g_iPendingCallCount = 2;

    deliver(&m_oManager, 0, "{\"a\":1}", invocation());

    EXPECT_THAT(Bus().replies, ElementsAre(std::make_pair(0, std::string("{\"a\":1}"))));
    EXPECT_THAT(Bus().answered, ElementsAre(invocation()));
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 1u);
    const std::string strName = "m_PipeCallback";
    EXPECT_THAT(
        LoggedLines(),
        ElementsAre(
            MANAGER.plainInfo(strName, "START"),
            MANAGER.info(strName, "m_PipeCallback >>> iRespResult:[0],strRespInfo[{\"a\":1}]=="),
            MANAGER.plainInfo(strName, "g_dbus_method_invocation_return_value"),
            MANAGER.plainInfo(strName, "g_dbus_method_invocation_return_value")));
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

// Ecore calls its reader so when it has no memory for a message; the pipe is closed then.
TEST_F(ADBusManager, EndsTheServiceWhenThePipeHasFailed)
{
    static volatile std::sig_atomic_t g_iTerminated;
    g_iTerminated = 0;
    const auto pfnBefore = std::signal(SIGTERM, [](int) { ++g_iTerminated; });

    CDBusManager::m_PipeCallback(&m_oManager, nullptr, 0);

    std::signal(SIGTERM, pfnBefore);
    EXPECT_EQ(g_iTerminated, 1);
    EXPECT_THAT(Bus().replies, IsEmpty());
    EXPECT_THAT(LoggedLines(), ElementsAre(MANAGER.plainInfo("m_PipeCallback", "START"),
                                           MANAGER.error("m_PipeCallback",
                                                         "the result pipe has failed for want of "
                                                         "memory, the service ends")));
}

TEST_F(ADBusManager, AnswersNobodyWithoutAnInvocation)
{
    g_iPendingCallCount = 2;

    deliver(&m_oManager, 0, "body", nullptr);

    EXPECT_THAT(Bus().replies, IsEmpty());
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 2u);
    EXPECT_EQ(LoggedLines().back(),
              MANAGER.plainError("m_PipeCallback", "GDBusMethodInvocation invocation is NULL"));
}

TEST_F(ADBusManager, AnswersNobodyWithoutManagerOrRecord)
{
    BILLING_RETURN_INFO_T tInfo;
    BILLING_RETURN_INFO_T* pInfo = &tInfo;
    CDBusManager::m_PipeCallback(nullptr, &pInfo, sizeof pInfo);
    pInfo = nullptr;
    CDBusManager::m_PipeCallback(&m_oManager, &pInfo, sizeof pInfo);

    EXPECT_THAT(Bus().replies, IsEmpty());
    EXPECT_THAT(LoggedLines(), ElementsAre(MANAGER.plainInfo("m_PipeCallback", "START"),
                                           MANAGER.plainInfo("m_PipeCallback", "START")));
}

TEST_F(ADBusManager, MakesABodyValidForTheBus)
{
    deliver(&m_oManager, 0, std::string("a\0b\xff", 4), invocation());

    EXPECT_THAT(Bus().replies, ElementsAre(std::make_pair(0, std::string("a\uFFFDb\uFFFD"))));
}

TEST_F(ADBusManager, AnswersABodyThatTheBusCannotCarryAsFailed)
{
    deliver(&m_oManager, 0, std::string(33554376, 'x'), invocation());

    EXPECT_THAT(Bus().replies, ElementsAre(std::make_pair(-1, std::string())));
}

}  // namespace
