// dbus_manager_doubles.cpp - CBillingEngine and GIO's bus calls as the tests of CDBusManager want
// them, and the fixture.
#include "dbus_manager_doubles.h"

#include "BillingEngine.h"
#include "BillingTaskBase.h"
#include "BusFilter.h"

BusDouble& Bus()
{
    static BusDouble bus;
    return bus;
}

EngineDouble& Engine()
{
    static EngineDouble engine;
    return engine;
}

namespace {

bool Asked(const char* szOperation, const CBillingItem& oItem, void* pUser)
{
    Engine().strOperation = szOperation;
    Engine().oItem = oItem;
    Engine().pUser = pUser;
    if (Engine().fails) {
        Engine().fails();
    }
    return Engine().bResult;
}

}  // namespace

CBillingEngine::~CBillingEngine()
{
    Engine().life.emplace_back("destruct");
}
bool CBillingEngine::Create()
{
    Engine().life.emplace_back("Create");
    return false;
}
void CBillingEngine::Destroy()
{
    Engine().life.emplace_back("Destroy");
}
bool CBillingEngine::RegisterPipeCallback(void (*handler)(void*, void*, unsigned int), void* data)
{
    Engine().life.emplace_back(handler == CDBusManager::m_PipeCallback && data != nullptr
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
    Engine().strText = "[" + strText + "]";
    return Asked("CheckServerAvailability", {}, pUser);
}

void CBusFilter::Install(GDBusConnection* pConnection)
{
    Bus().calls.emplace_back("filter");
    Bus().pFiltered = pConnection;
}

extern "C" {
GDBusNodeInfo* __real_g_dbus_node_info_new_for_xml(const gchar* xml, GError** error);
GDBusNodeInfo* __wrap_g_dbus_node_info_new_for_xml(const gchar* xml, GError** error)
{
    return Bus().bXmlFails ? nullptr : __real_g_dbus_node_info_new_for_xml(xml, error);
}
guint __wrap_g_bus_own_name(GBusType type, const gchar* name, GBusNameOwnerFlags flags,
                            GBusAcquiredCallback bus, GBusNameAcquiredCallback acquired,
                            GBusNameLostCallback lost, gpointer data, GDestroyNotify free)
{
    const bool bOurs = type == G_BUS_TYPE_SYSTEM && bus == CDBusManager::m_BusAcquired &&
                       acquired == CDBusManager::m_NameAcquired &&
                       lost == CDBusManager::m_NameLost && free == nullptr;
    Bus().calls.push_back(std::string(bOurs ? "own " : "own otherwise ") + name);
    Bus().eFlags = flags;
    Bus().pOwnData = data;
    return Bus().uOwnId;
}
void __wrap_g_bus_unown_name(guint id)
{
    Bus().calls.push_back("unown " + std::to_string(id));
}
guint __wrap_g_dbus_connection_register_object(GDBusConnection*, const gchar* path,
                                               GDBusInterfaceInfo* interface,
                                               const GDBusInterfaceVTable* vtable, gpointer data,
                                               GDestroyNotify, GError**)
{
    Bus().calls.push_back(std::string("register ") + path);
    Bus().strInterface = interface->name;
    Bus().ptVTable = vtable;
    Bus().pRegisterData = data;
    return Bus().uRegisterId;
}
gboolean __wrap_g_dbus_connection_unregister_object(GDBusConnection*, guint id)
{
    Bus().calls.push_back("unregister " + std::to_string(id));
    return TRUE;
}
const gchar* __wrap_g_dbus_method_invocation_get_sender(GDBusMethodInvocation*)
{
    return Bus().strSender.c_str();
}
void __wrap_g_dbus_method_invocation_return_value(GDBusMethodInvocation* invocation,
                                                  GVariant* value)
{
    gint iResult = 0;
    const gchar* szInfo = nullptr;
    ASSERT_TRUE(g_variant_is_of_type(value, G_VARIANT_TYPE("(is)")));
    g_variant_get(value, "(i&s)", &iResult, &szInfo);
    Bus().replies.emplace_back(iResult, szInfo);
    Bus().answered.push_back(invocation);
    g_variant_unref(g_variant_ref_sink(value));
}
void __wrap_g_dbus_method_invocation_return_dbus_error(GDBusMethodInvocation* invocation,
                                                       const gchar* name, const gchar* text)
{
    Bus().errors.push_back(std::string(name) + ": " + text);
    Bus().answered.push_back(invocation);
}
}

void ADBusManager::SetUp()
{
    fake::platform().reset();
    Bus() = BusDouble();
    Engine() = EngineDouble();
    g_iPendingCallCount = 0;
}

void ADBusManager::TearDown()
{
    m_oManager.m_DestoryDbusConnection();
    BillingDeleteInstance<CBillingEngine>();
}

void ADBusManager::call(const char* szMethod, const char* szParameters)
{
    GVariant* pParameters = g_variant_parse(nullptr, szParameters, nullptr, nullptr, nullptr);
    ASSERT_NE(pParameters, nullptr);
    CDBusManager::m_HandleMethodCall(nullptr, ":1.5", "/org/plevo/billingservice",
                                     "org.plevo.billingservice", szMethod, pParameters,
                                     invocation(), m_pManager);
    g_variant_unref(pParameters);
}

void ADBusManager::deliver(void* data, int iResult, const std::string& strInfo, void* pUser)
{
    auto* pInfo = new BILLING_RETURN_INFO_T;
    pInfo->iRespResult = iResult;
    pInfo->strRespInfo = strInfo;
    pInfo->pUser = pUser;
    CDBusManager::m_PipeCallback(data, &pInfo, sizeof pInfo);
}
