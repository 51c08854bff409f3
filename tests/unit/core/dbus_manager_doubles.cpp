// dbus_manager_doubles.cpp - the doubles of CBillingEngine and of GIO's bus calls for the tests of
// CDBusManager, and their fixture.
#include "dbus_manager_doubles.h"

#include "BillingEngine.h"
#include "BillingTaskBase.h"
#include "BusFilter.h"
#include "heap_double.h"

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
    Note(szOperation);
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
    Note("engine destruct");
}
bool CBillingEngine::Create()
{
    Note("engine Create");
    return false;
}
void CBillingEngine::Destroy()
{
    Note("engine Destroy");
}
bool CBillingEngine::RegisterPipeCallback(void (*handler)(void*, void*, unsigned int), void* data)
{
    Note(handler == CDBusManager::m_PipeCallback ? "engine RegisterPipeCallback"
                                                 : "RegisterPipeCallback with another handler");
    Engine().pPipeData = data;
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
    Note("filter");
    Bus().pFiltered = pConnection;
}

extern "C" {
GDBusNodeInfo* __real_g_dbus_node_info_new_for_xml(const gchar* xml, GError** error);
GDBusNodeInfo* __wrap_g_dbus_node_info_new_for_xml(const gchar* xml, GError** error)
{
    Note(error == nullptr ? "parse" : "parse with an error object");
    return Bus().bXmlFails ? nullptr : __real_g_dbus_node_info_new_for_xml(xml, error);
}
void __real_g_dbus_node_info_unref(GDBusNodeInfo* node);
void __wrap_g_dbus_node_info_unref(GDBusNodeInfo* node)
{
    Note("unref node");
    __real_g_dbus_node_info_unref(node);
}
guint __wrap_g_bus_own_name(GBusType type, const gchar* name, GBusNameOwnerFlags flags,
                            GBusAcquiredCallback bus, GBusNameAcquiredCallback acquired,
                            GBusNameLostCallback lost, gpointer data, GDestroyNotify free)
{
    const bool bOurs = type == G_BUS_TYPE_SYSTEM && bus == CDBusManager::m_BusAcquired &&
                       acquired == CDBusManager::m_NameAcquired &&
                       lost == CDBusManager::m_NameLost && free == nullptr;
    Note(std::string(bOurs ? "own " : "own otherwise ") + name);
    Bus().eFlags = flags;
    Bus().pOwnData = data;
    return Bus().uOwnId;
}
void __wrap_g_bus_unown_name(guint id)
{
    Note("unown " + std::to_string(id));
}
guint __wrap_g_dbus_connection_register_object(GDBusConnection* connection, const gchar* path,
                                               GDBusInterfaceInfo* interface,
                                               const GDBusInterfaceVTable* vtable, gpointer data,
                                               GDestroyNotify free, GError** error)
{
    Note(std::string(free == nullptr && error == nullptr ? "register " : "register otherwise ") +
         path);
    Bus().pConnection = connection;
    Bus().ptInterface = interface;
    Bus().ptVTable = vtable;
    Bus().pRegisterData = data;
    return Bus().uRegisterId;
}
gboolean __wrap_g_dbus_connection_unregister_object(GDBusConnection* connection, guint id)
{
    Note((connection == Bus().pConnection ? "unregister " : "unregister elsewhere ") +
         std::to_string(id));
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
    Note("reply " + std::to_string(iResult) + " " + szInfo);
    Bus().pAnswered = invocation;
    g_variant_unref(g_variant_ref_sink(value));
}
void __wrap_g_dbus_method_invocation_return_dbus_error(GDBusMethodInvocation* invocation,
                                                       const gchar* name, const gchar* text)
{
    Note(std::string("error ") + name + ": " + text);
    Bus().pAnswered = invocation;
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
    fake::platform().onLog(nullptr);
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
    WatchDeletion(pInfo);
    CDBusManager::m_PipeCallback(data, &pInfo, sizeof pInfo);
}
