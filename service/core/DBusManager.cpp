// DBusManager.cpp - the service on the bus: its name, its object, its methods and their replies.
#include "DBusManager.h"

#include "BillingLog.h"
#include "BillingTaskBase.h"
#include "BusFilter.h"
#include "OnBehalf.h"
#include "ParametersText.h"
#include "ReplyBody.h"
#include "ReplyText.h"

#include <array>
#include <csignal>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <utility>

guint32 g_iPendingCallCount = 0;

namespace {

constexpr const char* SERVICE_NAME = "org.plevo.billingservice";
constexpr const char* OBJECT_PATH = "/org/plevo/billingservice";

constexpr const char* INTERFACE_XML = R"(<node>
  <interface name="org.plevo.billingservice">
    <method name="get_product_list">
      <arg type="s" name="appid" direction="in"/>
      <arg type="s" name="serverType" direction="in"/>
      <arg type="s" name="CheckValue" direction="in"/>
      <arg type="i" name="resp_result" direction="out"/>
      <arg type="s" name="resp_info" direction="out"/>
    </method>
    <method name="get_purchase_history">
      <arg type="s" name="appid" direction="in"/>
      <arg type="s" name="customId" direction="in"/>
      <arg type="s" name="ItemType" direction="in"/>
      <arg type="s" name="PageNumber" direction="in"/>
      <arg type="s" name="CheckValue" direction="in"/>
      <arg type="s" name="serverType" direction="in"/>
      <arg type="i" name="resp_result" direction="out"/>
      <arg type="s" name="resp_info" direction="out"/>
    </method>
    <method name="get_applied_time">
      <arg type="s" name="appid" direction="in"/>
      <arg type="s" name="customId" direction="in"/>
      <arg type="s" name="invoiceid" direction="in"/>
      <arg type="s" name="serverType" direction="in"/>
      <arg type="i" name="resp_result" direction="out"/>
      <arg type="s" name="resp_info" direction="out"/>
    </method>
    <method name="confirm_purchase">
      <arg type="s" name="appid" direction="in"/>
      <arg type="s" name="customId" direction="in"/>
      <arg type="s" name="invoiceid" direction="in"/>
      <arg type="s" name="serverType" direction="in"/>
      <arg type="i" name="resp_result" direction="out"/>
      <arg type="s" name="resp_info" direction="out"/>
    </method>
    <method name="check_server_availability">
      <arg type="i" name="resp_result" direction="out"/>
      <arg type="s" name="resp_info" direction="out"/>
    </method>
  </interface>
</node>
)";

// Largest count of unanswered calls; the next one sets it to 1.
constexpr guint32 PENDING_CALLS_END = 65279;

using ItemMember = std::string CBillingItem::*;
constexpr std::size_t MAX_ARGUMENTS = 6;

constexpr const char* HANDLER = "m_HandleMethodCall";

// The differences between the five methods. The members are in the order of the method's arguments.
struct Method {
    const char* szName;
    void (*pfnLogHandle)();
    const char* szSignature;
    std::array<ItemMember, MAX_ARGUMENTS> arMembers;
    void (*pfnCall)(CBillingEngine& oEngine, const CBillingItem& oItem, void* pUser);
};

// FindMethod compares the names in this order.
const std::array<Method, 5> METHODS{{
    {"get_product_list",
     [] { BILLING_INFO_AS(HANDLER, "handle get_product_list"); },
     "(sss)",
     {&CBillingItem::strAppId, &CBillingItem::strServerType, &CBillingItem::strCheckValue},
     [](CBillingEngine& oEngine, const CBillingItem& oItem, void* pUser) {
         BILLING_INFO_AS(HANDLER, "GetProducts return %d", oEngine.GetProducts(oItem, pUser));
     }},
    {"get_applied_time",
     [] { BILLING_INFO_AS(HANDLER, "handle get_applied_time"); },
     "(ssss)",
     {&CBillingItem::strAppId, &CBillingItem::strCustomId, &CBillingItem::strInvoiceId,
      &CBillingItem::strServerType},
     [](CBillingEngine& oEngine, const CBillingItem& oItem, void* pUser) {
         BILLING_INFO_AS(HANDLER, "GetAppliedTime return %d", oEngine.GetAppliedTime(oItem, pUser));
     }},
    {"get_purchase_history",
     [] { BILLING_INFO_AS(HANDLER, "handle get_purchase_history"); },
     "(ssssss)",
     {&CBillingItem::strAppId, &CBillingItem::strCustomId, &CBillingItem::strItemType,
      &CBillingItem::strPageNumber, &CBillingItem::strCheckValue, &CBillingItem::strServerType},
     [](CBillingEngine& oEngine, const CBillingItem& oItem, void* pUser) {
         BILLING_INFO_AS(HANDLER, "PurchaseHistory return %d",
                         oEngine.PurchaseHistory(oItem, pUser));
     }},
    {"confirm_purchase",
     [] { BILLING_INFO_AS(HANDLER, "handle confirm_purchase"); },
     "(ssss)",
     {&CBillingItem::strAppId, &CBillingItem::strCustomId, &CBillingItem::strInvoiceId,
      &CBillingItem::strServerType},
     [](CBillingEngine& oEngine, const CBillingItem& oItem, void* pUser) {
         BILLING_INFO_AS(HANDLER, "ConfirmPurchase return %d",
                         oEngine.ConfirmPurchase(oItem, pUser));
     }},
    {"check_server_availability",
     [] { BILLING_INFO_AS(HANDLER, "handle check_server_availability"); },
     "()",
     {},
     [](CBillingEngine& oEngine, const CBillingItem&, void* pUser) {
         std::string strText;
         const bool bResult = oEngine.CheckServerAvailability(strText, pUser);
         BILLING_INFO_AS(HANDLER, "check_server_availability return %d,%s", bResult,
                         strText.c_str());
     }},
}};

const Method* FindMethod(const char* szName)
{
    for (const Method& tMethod : METHODS) {
        if (g_strcmp0(szName, tMethod.szName) == 0) {
            return &tMethod;
        }
    }
    return nullptr;
}

// Precondition: GDBus has checked the arguments' types against the interface.
CBillingItem Unpack(const Method& tMethod, GVariant* pParameters)
{
    std::array<gchar*, MAX_ARGUMENTS> arTexts{};
    // g_variant_get sets as many of the pointers as the signature has arguments.
    g_variant_get(pParameters, tMethod.szSignature, &arTexts[0], &arTexts[1], &arTexts[2],
                  &arTexts[3], &arTexts[4], &arTexts[5]);
    CBillingItem oItem;
    for (std::size_t i = 0; i < MAX_ARGUMENTS && arTexts[i] != nullptr; ++i) {
        oItem.*tMethod.arMembers[i] = arTexts[i];
        g_free(arTexts[i]);
    }
    return oItem;
}

}  // namespace

CDBusManager::CDBusManager()
    : m_pBSBusNode(nullptr),
      m_pBLConnection(nullptr),
      m_tInterfaceVTable{m_HandleMethodCall, nullptr, nullptr, {}},
      m_poEngine(nullptr),
      m_pBSBusRegisterID(0),
      m_uBSBusOwnID(0)
{
}

CDBusManager::~CDBusManager()
{
    if (m_poEngine == nullptr) {
        return;
    }
    m_poEngine->Destroy();
    BillingDeleteInstance<CBillingEngine>();
}

bool CDBusManager::Initialize()
{
    m_pBSBusNode = g_dbus_node_info_new_for_xml(INTERFACE_XML, nullptr);
    BILLING_RETURN_IF(NULL == m_pBSBusNode, false);
    m_uBSBusOwnID = g_bus_own_name(G_BUS_TYPE_SYSTEM, SERVICE_NAME, G_BUS_NAME_OWNER_FLAGS_NONE,
                                   m_BusAcquired, m_NameAcquired, m_NameLost, this, nullptr);
    BILLING_INFO("m_uBSBusOwnID = %d", static_cast<int>(m_uBSBusOwnID));
    return true;
}

bool CDBusManager::InitEcorePipe()
{
    m_poEngine = BillingInstance<CBillingEngine>();
    if (m_poEngine == nullptr) {
        return false;
    }
    m_poEngine->RegisterPipeCallback(m_PipeCallback, this);
    m_poEngine->Create();
    return true;
}

unsigned CDBusManager::GetDbusProcessListNum()
{
    return g_iPendingCallCount;
}

void CDBusManager::m_DestoryDbusConnection()
{
    BILLING_INFO("Destory Dbus Connection Start...");
    if (m_uBSBusOwnID != 0) {
        BILLING_INFO("unown_name m_uOwnID");
        g_bus_unown_name(m_uBSBusOwnID);
        m_uBSBusOwnID = 0;
    }
    if (m_pBSBusNode != nullptr) {
        BILLING_INFO("node_info_unref m_pBLNode");
        g_dbus_node_info_unref(m_pBSBusNode);
        m_pBSBusNode = nullptr;
    }
    if (m_pBLConnection != nullptr && m_pBSBusRegisterID != 0) {
        BILLING_INFO("connection_unregister m_pBLConnection");
        g_dbus_connection_unregister_object(m_pBLConnection, m_pBSBusRegisterID);
        m_pBSBusRegisterID = 0;
    }
    BILLING_INFO("Destory Dbus Connection End!");
}

void CDBusManager::m_BusAcquired(GDBusConnection* connection, const char*, void* user_data)
{
    auto* poManager = static_cast<CDBusManager*>(user_data);
    BILLING_INFO("Bus acquired, creating manager...");
    CBusFilter::Install(connection);
    poManager->m_pBSBusRegisterID = g_dbus_connection_register_object(
        connection, OBJECT_PATH, poManager->m_pBSBusNode->interfaces[0],
        &poManager->m_tInterfaceVTable, poManager, nullptr, nullptr);
    poManager->m_pBLConnection = connection;
    BILLING_INFO("m_pBSBusRegisterID = %d\n", static_cast<int>(poManager->m_pBSBusRegisterID));
}

void CDBusManager::m_NameAcquired(GDBusConnection*, const char* name, void*)
{
    BILLING_INFO("Service name '%s' was acquired", name);
}

void CDBusManager::m_NameLost(GDBusConnection*, const char* name, void*)
{
    if (name == nullptr) {
        BILLING_INFO("Could not get the system bus. Make sure the message bus daemon is running!");
    } else {
        BILLING_ERROR("Could not acquire the '%s' service name", name);
    }
}

void CDBusManager::m_HandleMethodCall(GDBusConnection*, const char* sender, const char*,
                                      const char*, const char* method_name, GVariant* parameters,
                                      GDBusMethodInvocation* invocation, void* user_data)
{
    const COnBehalf oOnBehalf(sender);
    BILLING_INFO_PLAIN("method name = %s\n", method_name);
    BILLING_INFO_PLAIN("parameters = %s\n", CParametersText(parameters).Get());
    if (user_data == nullptr) {
        BILLING_ERROR_PLAIN("DBusManager instance is NULL");
        return;
    }
    const Method* ptMethod = FindMethod(method_name);
    if (ptMethod == nullptr) {
        return;
    }
    ptMethod->pfnLogHandle();
    try {
        const CBillingItem oItem = Unpack(*ptMethod, parameters);
        CBillingEngine* poBLEngine = BillingInstance<CBillingEngine>();
        BILLING_RETURN_IF(NULL == poBLEngine);
        ptMethod->pfnCall(*poBLEngine, oItem, invocation);
    } catch (const std::bad_alloc&) {
        BILLING_ERROR("no memory for the call's arguments, it is answered with an error");
        g_dbus_method_invocation_return_dbus_error(
            invocation, "org.freedesktop.DBus.Error.NoMemory", "no memory for the arguments");
        return;
    } catch (const std::exception& oError) {  // no exception may pass through GIO
        BILLING_ERROR("the call cannot be made, it is answered with an error: %s", oError.what());
        g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.Failed",
                                                   "the call cannot be made");
        return;
    }
    g_iPendingCallCount = g_iPendingCallCount == PENDING_CALLS_END ? 1 : g_iPendingCallCount + 1;
}

void CDBusManager::m_PipeCallback(void* data, void* buffer, unsigned int)
{
    BILLING_INFO_PLAIN("START");
    if (buffer == nullptr) {
        // Ecore had no memory for a message and closes the pipe: no further call could be answered.
        BILLING_ERROR("the result pipe has failed for want of memory, the service ends");
        raise(SIGTERM);
        return;
    }
    std::unique_ptr<BILLING_RETURN_INFO_T> ptInfo(
        data != nullptr ? *static_cast<BILLING_RETURN_INFO_T**>(buffer) : nullptr);
    if (ptInfo == nullptr) {
        return;
    }
    auto* pInvocation = static_cast<GDBusMethodInvocation*>(ptInfo->pUser);
    const COnBehalf oOnBehalf(
        pInvocation != nullptr ? g_dbus_method_invocation_get_sender(pInvocation) : nullptr);
    BILLING_INFO("m_PipeCallback >>> iRespResult:[%d],strRespInfo[%s]==", ptInfo->iRespResult,
                 ptInfo->strRespInfo.c_str());
    int iRespResult = ptInfo->iRespResult;
    std::string strRespInfo = std::move(ptInfo->strRespInfo);
    std::shared_ptr<void> pCount = std::move(ptInfo->pCount);
    ptInfo.reset();
    if (pInvocation == nullptr) {
        BILLING_ERROR_PLAIN("GDBusMethodInvocation invocation is NULL");
        return;
    }
    // The bus disconnects the sender of a message that is too long or not valid.
    if (!MakeReplyText(strRespInfo,
                       ReplyTextLimit(g_dbus_method_invocation_get_sender(pInvocation)))) {
        BILLING_ERROR("the response does not fit the bus or the memory, it is answered as failed");
        iRespResult = BILLING_RESULT_HTTP_ERROR;
    }
    GVariant* pBody = MakeCountedBody(iRespResult, strRespInfo, pCount);
    if (pBody == nullptr) {
        pBody = g_variant_new("(is)", iRespResult, strRespInfo.c_str());
    }
    g_dbus_method_invocation_return_value(pInvocation, pBody);
    BILLING_INFO_PLAIN("g_dbus_method_invocation_return_value");
    --g_iPendingCallCount;
    BILLING_INFO_PLAIN("g_dbus_method_invocation_return_value");
}
