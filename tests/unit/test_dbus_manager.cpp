// test_dbus_manager.cpp - CDBusManager with doubles in place of the engine and of GIO's bus calls.
#include "BillingEngine.h"
#include "BillingHttpConnector.h"
#include "BillingTaskBase.h"
#include "DBusManager.h"
#include "allocation_switch.h"
#include "log_matchers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct DBusManagerProbe {
    static GDBusNodeInfo* node(const CDBusManager& o) { return o.m_pBSBusNode; }
    static guint32 ownId(const CDBusManager& o) { return o.m_uBSBusOwnID; }
    static guint32 registerId(const CDBusManager& o) { return o.m_pBSBusRegisterID; }
    static GDBusConnection* connection(const CDBusManager& o) { return o.m_pBLConnection; }
    static CBillingEngine* engine(const CDBusManager& o) { return o.m_poEngine; }
    static const GDBusInterfaceVTable& vtable(const CDBusManager& o)
    {
        return o.m_tInterfaceVTable;
    }
};

namespace {

// What the doubles below were asked for, and what they answer.
struct Bus {
    bool bXmlFails = false;
    guint uOwnId = 7;
    guint uRegisterId = 3;
    std::vector<std::string> calls;
    GBusNameOwnerFlags eFlags = G_BUS_NAME_OWNER_FLAGS_REPLACE;
    gpointer pOwnData = nullptr;
    std::string strInterface;
    const GDBusInterfaceVTable* ptVTable = nullptr;
    gpointer pRegisterData = nullptr;
    std::string strSender = ":1.5";
    std::vector<std::pair<int, std::string>> replies;
    std::vector<void*> answered;
};
Bus g_bus;

struct EngineDouble {
    bool bResult = true;
    std::string strOperation;
    CBillingItem oItem;
    std::string strText;
    void* pUser = nullptr;
    std::vector<std::string> life;
};
EngineDouble g_engine;

bool Asked(const char* szOperation, const CBillingItem& oItem, void* pUser)
{
    g_engine.strOperation = szOperation;
    g_engine.oItem = oItem;
    g_engine.pUser = pUser;
    return g_engine.bResult;
}

}  // namespace

CBillingEngine::~CBillingEngine()
{
    g_engine.life.emplace_back("destruct");
}
bool CBillingEngine::Create()
{
    g_engine.life.emplace_back("Create");
    return false;
}
void CBillingEngine::Destroy()
{
    g_engine.life.emplace_back("Destroy");
}
bool CBillingEngine::RegisterPipeCallback(void (*handler)(void*, void*, unsigned int), void* data)
{
    g_engine.life.emplace_back(handler == CDBusManager::m_PipeCallback && data != nullptr
                                   ? "RegisterPipeCallback"
                                   : "RegisterPipeCallback with another handler");
    return false;
}
bool CBillingEngine::GetProducts(CBillingItem oItem, void* pUser)
{
    return Asked("GetProducts", oItem, pUser);
}
bool CBillingEngine::PurchaseHistory(CBillingItem oItem, void* pUser)
{
    return Asked("PurchaseHistory", oItem, pUser);
}
bool CBillingEngine::GetAppliedTime(CBillingItem oItem, void* pUser)
{
    return Asked("GetAppliedTime", oItem, pUser);
}
bool CBillingEngine::ConfirmPurchase(CBillingItem oItem, void* pUser)
{
    return Asked("ConfirmPurchase", oItem, pUser);
}
bool CBillingEngine::CheckServerAvailability(std::string& strText, void* pUser)
{
    g_engine.strText = "[" + strText + "]";
    return Asked("CheckServerAvailability", {}, pUser);
}

extern "C" {
GDBusNodeInfo* __real_g_dbus_node_info_new_for_xml(const gchar* xml, GError** error);
GDBusNodeInfo* __wrap_g_dbus_node_info_new_for_xml(const gchar* xml, GError** error)
{
    return g_bus.bXmlFails ? nullptr : __real_g_dbus_node_info_new_for_xml(xml, error);
}
guint __wrap_g_bus_own_name(GBusType type, const gchar* name, GBusNameOwnerFlags flags,
                            GBusAcquiredCallback bus, GBusNameAcquiredCallback acquired,
                            GBusNameLostCallback lost, gpointer data, GDestroyNotify free)
{
    const bool bOurs = type == G_BUS_TYPE_SYSTEM && bus == CDBusManager::m_BusAcquired &&
                       acquired == CDBusManager::m_NameAcquired &&
                       lost == CDBusManager::m_NameLost && free == nullptr;
    g_bus.calls.push_back(std::string(bOurs ? "own " : "own otherwise ") + name);
    g_bus.eFlags = flags;
    g_bus.pOwnData = data;
    return g_bus.uOwnId;
}
void __wrap_g_bus_unown_name(guint id)
{
    g_bus.calls.push_back("unown " + std::to_string(id));
}
guint __wrap_g_dbus_connection_register_object(GDBusConnection*, const gchar* path,
                                               GDBusInterfaceInfo* interface,
                                               const GDBusInterfaceVTable* vtable, gpointer data,
                                               GDestroyNotify, GError**)
{
    g_bus.calls.push_back(std::string("register ") + path);
    g_bus.strInterface = interface->name;
    g_bus.ptVTable = vtable;
    g_bus.pRegisterData = data;
    return g_bus.uRegisterId;
}
gboolean __wrap_g_dbus_connection_unregister_object(GDBusConnection*, guint id)
{
    g_bus.calls.push_back("unregister " + std::to_string(id));
    return TRUE;
}
const gchar* __wrap_g_dbus_method_invocation_get_sender(GDBusMethodInvocation*)
{
    return g_bus.strSender.c_str();
}
void __wrap_g_dbus_method_invocation_return_value(GDBusMethodInvocation* invocation,
                                                  GVariant* value)
{
    gint iResult = 0;
    const gchar* szInfo = nullptr;
    ASSERT_TRUE(g_variant_is_of_type(value, G_VARIANT_TYPE("(is)")));
    g_variant_get(value, "(i&s)", &iResult, &szInfo);
    g_bus.replies.emplace_back(iResult, szInfo);
    g_bus.answered.push_back(invocation);
    g_variant_unref(g_variant_ref_sink(value));
}
}

namespace {

const LinesOf MANAGER{"DBusManager.cpp"};

class ADBusManager : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::platform().reset();
        g_bus = Bus();
        g_engine = EngineDouble();
        g_iPendingCallCount = 0;
    }

    void TearDown() override
    {
        m_oManager.m_DestoryDbusConnection();
        BillingDeleteInstance<CBillingEngine>();
    }

    GDBusMethodInvocation* invocation()
    {
        return reinterpret_cast<GDBusMethodInvocation*>(&m_invocation);
    }

    void call(const char* szMethod, const char* szParameters)
    {
        GVariant* pParameters = g_variant_parse(nullptr, szParameters, nullptr, nullptr, nullptr);
        ASSERT_NE(pParameters, nullptr);
        CDBusManager::m_HandleMethodCall(nullptr, ":1.5", "/org/plevo/billingservice",
                                         "org.plevo.billingservice", szMethod, pParameters,
                                         invocation(), m_pManager);
        g_variant_unref(pParameters);
    }

    void deliver(void* data, int iResult, const std::string& strInfo, void* pUser)
    {
        auto* pInfo = new BILLING_RETURN_INFO_T;
        pInfo->iRespResult = iResult;
        pInfo->strRespInfo = strInfo;
        pInfo->pUser = pUser;
        CDBusManager::m_PipeCallback(data, &pInfo, sizeof pInfo);
    }

    CDBusManager m_oManager;
    CDBusManager* m_pManager = &m_oManager;
    int m_invocation = 0;
};

TEST_F(ADBusManager, BeginsWithNothing)
{
    EXPECT_EQ(DBusManagerProbe::node(m_oManager), nullptr);
    EXPECT_EQ(DBusManagerProbe::connection(m_oManager), nullptr);
    EXPECT_EQ(DBusManagerProbe::engine(m_oManager), nullptr);
    EXPECT_EQ(DBusManagerProbe::ownId(m_oManager), 0u);
    EXPECT_EQ(DBusManagerProbe::registerId(m_oManager), 0u);
    const GDBusInterfaceVTable& tVTable = DBusManagerProbe::vtable(m_oManager);
    EXPECT_EQ(tVTable.method_call, &CDBusManager::m_HandleMethodCall);
    EXPECT_EQ(tVTable.get_property, nullptr);
    EXPECT_EQ(tVTable.set_property, nullptr);
}

TEST_F(ADBusManager, AsksForItsNameOnTheSystemBusWithoutFlags)
{
    EXPECT_TRUE(m_oManager.Initialize());

    EXPECT_THAT(g_bus.calls, ElementsAre("own org.plevo.billingservice"));
    EXPECT_EQ(g_bus.eFlags, G_BUS_NAME_OWNER_FLAGS_NONE);
    EXPECT_EQ(g_bus.pOwnData, &m_oManager);
    EXPECT_EQ(DBusManagerProbe::ownId(m_oManager), 7u);
    EXPECT_THAT(LoggedLines(), ElementsAre(MANAGER.info("Initialize", "m_uBSBusOwnID = 7")));
}

TEST_F(ADBusManager, RefusesAnInterfaceThatCannotBeParsed)
{
    g_bus.bXmlFails = true;

    EXPECT_FALSE(m_oManager.Initialize());

    EXPECT_THAT(g_bus.calls, IsEmpty());
    EXPECT_THAT(LoggedLines(), ElementsAre(MANAGER.refused("Initialize", "NULL == m_pBSBusNode")));
}

std::string Arguments(GDBusArgInfo** ppArguments)
{
    std::string strArguments;
    for (; ppArguments != nullptr && *ppArguments != nullptr; ++ppArguments) {
        strArguments += (*ppArguments)->signature + std::string(" ") + (*ppArguments)->name + ", ";
    }
    return strArguments;
}

TEST_F(ADBusManager, DescribesItsFiveMethodsExactly)
{
    ASSERT_TRUE(m_oManager.Initialize());
    GDBusInterfaceInfo** ppInterfaces = DBusManagerProbe::node(m_oManager)->interfaces;
    ASSERT_NE(ppInterfaces[0], nullptr);
    EXPECT_EQ(ppInterfaces[1], nullptr);
    std::vector<std::string> methods;
    for (GDBusMethodInfo** pp = ppInterfaces[0]->methods; *pp != nullptr; ++pp) {
        methods.push_back((*pp)->name + std::string(": ") + Arguments((*pp)->in_args));
        EXPECT_EQ(Arguments((*pp)->out_args), "i resp_result, s resp_info, ");
    }

    EXPECT_STREQ(ppInterfaces[0]->name, "org.plevo.billingservice");
    EXPECT_THAT(methods,
                ElementsAre("get_product_list: s appid, s serverType, s CheckValue, ",
                            "get_purchase_history: s appid, s customId, s ItemType, s PageNumber, "
                            "s CheckValue, s serverType, ",
                            "get_applied_time: s appid, s customId, s invoiceid, s serverType, ",
                            "confirm_purchase: s appid, s customId, s invoiceid, s serverType, ",
                            "check_server_availability: "));
    EXPECT_EQ(ppInterfaces[0]->signals[0], nullptr);
    EXPECT_EQ(ppInterfaces[0]->properties[0], nullptr);
}

TEST_F(ADBusManager, PublishesItsObjectWhenTheBusIsThere)
{
    ASSERT_TRUE(m_oManager.Initialize());
    fake::platform().clearLog();
    auto* pConnection = reinterpret_cast<GDBusConnection*>(&m_invocation);

    CDBusManager::m_BusAcquired(pConnection, "name", &m_oManager);

    EXPECT_THAT(g_bus.calls, Contains("register /org/plevo/billingservice"));
    EXPECT_EQ(g_bus.strInterface, "org.plevo.billingservice");
    EXPECT_EQ(g_bus.ptVTable, &DBusManagerProbe::vtable(m_oManager));
    EXPECT_EQ(g_bus.pRegisterData, &m_oManager);
    EXPECT_EQ(DBusManagerProbe::connection(m_oManager), pConnection);
    EXPECT_THAT(LoggedLines(),
                ElementsAre(MANAGER.info("m_BusAcquired", "Bus acquired, creating manager..."),
                            MANAGER.info("m_BusAcquired", "m_pBSBusRegisterID = 3\n")));
}

TEST_F(ADBusManager, OnlyLogsThatItsObjectCouldNotBePublished)
{
    ASSERT_TRUE(m_oManager.Initialize());
    g_bus.uRegisterId = 0;

    CDBusManager::m_BusAcquired(nullptr, "name", &m_oManager);

    EXPECT_THAT(LoggedLines(), Contains(MANAGER.info("m_BusAcquired", "m_pBSBusRegisterID = 0\n")));
}

TEST_F(ADBusManager, OnlyLogsWhatBecomesOfItsName)
{
    CDBusManager::m_NameAcquired(nullptr, "a.name", &m_oManager);
    CDBusManager::m_NameLost(nullptr, "a.name", &m_oManager);
    CDBusManager::m_NameLost(nullptr, nullptr, &m_oManager);

    EXPECT_THAT(
        LoggedLines(),
        ElementsAre(MANAGER.info("m_NameAcquired", "Service name 'a.name' was acquired"),
                    MANAGER.error("m_NameLost", "Could not acquire the 'a.name' service name"),
                    MANAGER.info("m_NameLost",
                                 "Could not get the system bus. Make sure the message bus daemon "
                                 "is running!")));
}

TEST_F(ADBusManager, StartsTheEngineBehindItsPipeWhateverTheEngineAnswers)
{
    EXPECT_TRUE(m_oManager.InitEcorePipe());

    EXPECT_THAT(g_engine.life, ElementsAre("RegisterPipeCallback", "Create"));
    EXPECT_EQ(DBusManagerProbe::engine(m_oManager), CBillingSingleton<CBillingEngine>::m_pObj);
}

TEST_F(ADBusManager, HasNoPipeWithoutMemoryForTheEngine)
{
    FailNothrowAllocation(1);

    EXPECT_FALSE(m_oManager.InitEcorePipe());

    EXPECT_THAT(g_engine.life, IsEmpty());
}

TEST_F(ADBusManager, DestroysTheEngineButKeepsTheBusUntilTheProcessEnds)
{
    auto* poManager = new CDBusManager();
    poManager->Initialize();
    GDBusNodeInfo* pNode = DBusManagerProbe::node(*poManager);
    poManager->InitEcorePipe();
    g_bus.calls.clear();

    delete poManager;

    EXPECT_THAT(g_engine.life,
                ElementsAre("RegisterPipeCallback", "Create", "Destroy", "destruct"));
    EXPECT_EQ(CBillingSingleton<CBillingEngine>::m_pObj, nullptr);
    EXPECT_THAT(g_bus.calls, IsEmpty());
    g_dbus_node_info_unref(pNode);
}

TEST_F(ADBusManager, DestroysNothingWithoutAnEngine)
{
    delete new CDBusManager();

    EXPECT_THAT(g_engine.life, IsEmpty());
}

TEST_F(ADBusManager, ReleasesTheBusOnRequestAndOnlyOnce)
{
    m_oManager.Initialize();
    CDBusManager::m_BusAcquired(reinterpret_cast<GDBusConnection*>(&m_invocation), "name",
                                &m_oManager);
    g_bus.calls.clear();
    fake::platform().clearLog();
    const std::string strName = "m_DestoryDbusConnection";
    const Line tStart = MANAGER.info(strName, "Destory Dbus Connection Start...");
    const Line tEnd = MANAGER.info(strName, "Destory Dbus Connection End!");

    m_oManager.m_DestoryDbusConnection();
    m_oManager.m_DestoryDbusConnection();

    EXPECT_THAT(g_bus.calls, ElementsAre("unown 7", "unregister 3"));
    EXPECT_THAT(LoggedLines(),
                ElementsAre(tStart, MANAGER.info(strName, "unown_name m_uOwnID"),
                            MANAGER.info(strName, "node_info_unref m_pBLNode"),
                            MANAGER.info(strName, "connection_unregister m_pBLConnection"), tEnd,
                            tStart, tEnd));
    EXPECT_EQ(DBusManagerProbe::node(m_oManager), nullptr);
}

TEST_F(ADBusManager, ReleasesNothingWhenInitializeFailed)
{
    g_bus.bXmlFails = true;
    m_oManager.Initialize();
    fake::platform().clearLog();

    m_oManager.m_DestoryDbusConnection();

    EXPECT_THAT(
        LoggedLines(),
        ElementsAre(MANAGER.info("m_DestoryDbusConnection", "Destory Dbus Connection Start..."),
                    MANAGER.info("m_DestoryDbusConnection", "Destory Dbus Connection End!")));
}

// --- calls ---

TEST_F(ADBusManager, HandsAProductListOver)
{
    call("get_product_list", "('app', 'type', 'check')");

    EXPECT_EQ(g_engine.strOperation, "GetProducts");
    EXPECT_EQ(g_engine.pUser, invocation());
    EXPECT_EQ(g_engine.oItem.strAppId, "app");
    EXPECT_EQ(g_engine.oItem.strServerType, "type");
    EXPECT_EQ(g_engine.oItem.strCheckValue, "check");
    EXPECT_EQ(g_engine.oItem.strCustomId, "");
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

    EXPECT_EQ(g_engine.strOperation, "GetAppliedTime");
    EXPECT_EQ(g_engine.oItem.strAppId, "app");
    EXPECT_EQ(g_engine.oItem.strCustomId, "custom");
    EXPECT_EQ(g_engine.oItem.strInvoiceId, "invoice");
    EXPECT_EQ(g_engine.oItem.strServerType, "type");
    EXPECT_THAT(LoggedLines(),
                Contains(MANAGER.info("m_HandleMethodCall", "handle get_applied_time")));
    EXPECT_THAT(LoggedLines(),
                Contains(MANAGER.info("m_HandleMethodCall", "GetAppliedTime return 1")));
}

TEST_F(ADBusManager, HandsAPurchaseHistoryOverWithAllSixArguments)
{
    call("get_purchase_history", "('app', 'custom', 'item', 'page', 'check', 'type')");

    EXPECT_EQ(g_engine.strOperation, "PurchaseHistory");
    EXPECT_EQ(g_engine.oItem.strAppId, "app");
    EXPECT_EQ(g_engine.oItem.strCustomId, "custom");
    EXPECT_EQ(g_engine.oItem.strItemType, "item");
    EXPECT_EQ(g_engine.oItem.strPageNumber, "page");
    EXPECT_EQ(g_engine.oItem.strCheckValue, "check");
    EXPECT_EQ(g_engine.oItem.strServerType, "type");
    EXPECT_THAT(LoggedLines(),
                Contains(MANAGER.info("m_HandleMethodCall", "handle get_purchase_history")));
    EXPECT_THAT(LoggedLines(),
                Contains(MANAGER.info("m_HandleMethodCall", "PurchaseHistory return 1")));
}

TEST_F(ADBusManager, HandsAConfirmationOverAndLogsARefusal)
{
    g_engine.bResult = false;

    call("confirm_purchase", "('app', 'custom', 'invoice', 'type')");

    EXPECT_EQ(g_engine.strOperation, "ConfirmPurchase");
    EXPECT_EQ(g_engine.oItem.strAppId, "app");
    EXPECT_EQ(g_engine.oItem.strCustomId, "custom");
    EXPECT_EQ(g_engine.oItem.strInvoiceId, "invoice");
    EXPECT_EQ(g_engine.oItem.strServerType, "type");
    EXPECT_THAT(LoggedLines(),
                Contains(MANAGER.info("m_HandleMethodCall", "handle confirm_purchase")));
    EXPECT_THAT(LoggedLines(),
                Contains(MANAGER.info("m_HandleMethodCall", "ConfirmPurchase return 0")));
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 1u) << "a refusal is answered, so it counts";
}

TEST_F(ADBusManager, HandsAnAvailabilityCheckOverWithAnEmptyText)
{
    call("check_server_availability", "()");

    EXPECT_EQ(g_engine.strOperation, "CheckServerAvailability");
    EXPECT_EQ(g_engine.strText, "[]");
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

TEST_F(ADBusManager, IgnoresAnUnknownMethod)
{
    call("get_everything", "('app',)");

    EXPECT_EQ(g_engine.strOperation, "");
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 0u);
    EXPECT_THAT(g_bus.replies, IsEmpty());
    EXPECT_EQ(LoggedLines().size(), 2u) << "name and parameters, nothing else";
}

TEST_F(ADBusManager, LeavesACallWithoutManagerUnanswered)
{
    m_pManager = nullptr;

    call("get_product_list", "('app', 'type', 'check')");

    EXPECT_EQ(g_engine.strOperation, "");
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 0u);
    EXPECT_THAT(g_bus.replies, IsEmpty());
    EXPECT_EQ(LoggedLines().back(),
              MANAGER.plainError("m_HandleMethodCall", "DBusManager instance is NULL"));
}

TEST_F(ADBusManager, LeavesACallWithoutEngineUnanswered)
{
    FailNothrowAllocation(1);

    call("get_product_list", "('app', 'type', 'check')");

    EXPECT_EQ(g_engine.strOperation, "");
    EXPECT_EQ(CDBusManager::GetDbusProcessListNum(), 0u);
    EXPECT_THAT(g_bus.replies, IsEmpty());
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

// --- replies ---

TEST_F(ADBusManager, AnswersACallWithWhatThePipeBrings)
{
    g_iPendingCallCount = 2;

    deliver(&m_oManager, 0, "{\"a\":1}", invocation());

    EXPECT_THAT(g_bus.replies, ElementsAre(std::make_pair(0, std::string("{\"a\":1}"))));
    EXPECT_THAT(g_bus.answered, ElementsAre(invocation()));
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

TEST_F(ADBusManager, AnswersNobodyWithoutAnInvocation)
{
    g_iPendingCallCount = 2;

    deliver(&m_oManager, 0, "body", nullptr);

    EXPECT_THAT(g_bus.replies, IsEmpty());
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

    EXPECT_THAT(g_bus.replies, IsEmpty());
    EXPECT_THAT(LoggedLines(), ElementsAre(MANAGER.plainInfo("m_PipeCallback", "START"),
                                           MANAGER.plainInfo("m_PipeCallback", "START")));
}

TEST_F(ADBusManager, MakesABodyValidForTheBus)
{
    deliver(&m_oManager, 0, std::string("a\0b\xff", 4), invocation());

    EXPECT_THAT(g_bus.replies, ElementsAre(std::make_pair(0, std::string("a\uFFFDb\uFFFD"))));
}

TEST_F(ADBusManager, AnswersABodyThatTheBusCannotCarryAsFailed)
{
    deliver(&m_oManager, 0, std::string(33554376, 'x'), invocation());

    EXPECT_THAT(g_bus.replies, ElementsAre(std::make_pair(-1, std::string())));
}

}  // namespace
