// BusFilter.cpp - the flow control on GDBus.
#include "BusFilter.h"

#include "BillingLog.h"
#include "BusLimits.h"

#include <platform/process.h>

#include <algorithm>
#include <csignal>
#include <exception>

namespace {

constexpr const char* BUS_NAME = "org.freedesktop.DBus";
constexpr const char* BUS_PATH = "/org/freedesktop/DBus";
constexpr const char* LIMITS_EXCEEDED = "org.freedesktop.DBus.Error.LimitsExceeded";

constexpr const char* OWNERS_CHANGE =
    "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged'";

// Marks a message that the flow control has released: the filter lets it pass.
constexpr const char* RELEASED = "billing-released";

// The bus method that a question calls.
struct BusMethod {
    const char* szInterface;
    const char* szName;
};

BusMethod MethodOf(BusQuestion eKind)
{
    switch (eKind) {
        case BusQuestion::UNREAD:
            return {"org.freedesktop.DBus.Debug.Stats", "GetConnectionStats"};
        case BusQuestion::OWNER:
            return {BUS_NAME, "GetNameOwner"};
        case BusQuestion::USER:
            return {BUS_NAME, "GetConnectionUnixUser"};
        case BusQuestion::WATCH:
            return {BUS_NAME, "AddMatch"};
        case BusQuestion::PING:
        case BusQuestion::PROOF:
            break;
    }
    return {BUS_NAME, "GetId"};
}

BusMessagePtr MakeQuestion(BusQuestion eKind, const std::string& strName)
{
    if (eKind == BusQuestion::PING) {
        return BusMessagePtr(g_dbus_message_new_method_call(strName.c_str(), "/",
                                                            "org.freedesktop.DBus.Peer", "Ping"));
    }
    const BusMethod tMethod = MethodOf(eKind);
    BusMessagePtr pMessage(
        g_dbus_message_new_method_call(BUS_NAME, BUS_PATH, tMethod.szInterface, tMethod.szName));
    const char* szArgument = eKind == BusQuestion::WATCH ? OWNERS_CHANGE : strName.c_str();
    if (eKind != BusQuestion::PROOF) {
        g_dbus_message_set_body(pMessage.get(), g_variant_new("(s)", szArgument));
    }
    return pMessage;
}

bool IsReply(GDBusMessage* pMessage)
{
    const GDBusMessageType eType = g_dbus_message_get_message_type(pMessage);
    return eType == G_DBUS_MESSAGE_TYPE_METHOD_RETURN || eType == G_DBUS_MESSAGE_TYPE_ERROR;
}

bool WantsNoAnswer(GDBusMessage* pCall)
{
    return (g_dbus_message_get_flags(pCall) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0;
}

std::string SenderOf(GDBusMessage* pMessage)
{
    const gchar* szSender = g_dbus_message_get_sender(pMessage);
    return szSender != nullptr ? szSender : "";
}

}  // namespace

void CBusFilter::Install(GDBusConnection* pConnection)
{
    auto* poFilter = new CBusFilter(pConnection);
    g_dbus_connection_add_filter(pConnection, OnMessage, poFilter, OnEnd);
    const gchar* szName = g_dbus_connection_get_unique_name(pConnection);
    if (szName != nullptr) {
        const std::lock_guard<std::mutex> oLock(poFilter->m_oLock);
        poFilter->m_oFlow.Start(szName);
    }
}

CBusFilter::CBusFilter(GDBusConnection* pConnection) : m_pConnection(pConnection), m_oFlow(*this) {}

CBusFilter::~CBusFilter()
{
    StopTimer();
}

void CBusFilter::OnEnd(gpointer pFilter)
{
    delete static_cast<CBusFilter*>(pFilter);
}

GDBusMessage* CBusFilter::OnMessage(GDBusConnection*, GDBusMessage* pMessage, gboolean bIncoming,
                                    gpointer pFilter) noexcept
{
    auto* poFilter = static_cast<CBusFilter*>(pFilter);
    BusMessagePtr pOwned(pMessage);
    try {
        if (bIncoming != FALSE) {
            poFilter->Incoming(pOwned);
        } else {
            poFilter->Outgoing(pOwned);
        }
    } catch (const std::exception&) {
        // A message that the flow control has not taken passes unchanged.
        BILLING_ERROR("no memory for the flow control, a message passes it by");
    }
    return pOwned.release();
}

void CBusFilter::Incoming(BusMessagePtr& pMessage)
{
    if (IsReply(pMessage.get())) {
        if (g_dbus_message_get_reply_serial(pMessage.get()) >= BusLimits::FIRST_SERIAL) {
            const std::lock_guard<std::mutex> oLock(m_oLock);
            if (m_oFlow.Answer(pMessage.get())) {
                pMessage.reset();
            }
        }
        return;
    }
    if (g_dbus_message_get_message_type(pMessage.get()) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return;
    }
    const std::string strSender = SenderOf(pMessage.get());
    const std::size_t uBytes = BodyBytes(pMessage.get());
    const bool bTooLong = uBytes > BusLimits::ARGUMENT_BYTES;
    if (!bTooLong && !IsOneTooMany(pMessage.get(), strSender)) {
        const std::lock_guard<std::mutex> oLock(m_oLock);
        m_oFlow.Called(strSender);
        return;
    }
    const BusMessagePtr pCall = std::move(pMessage);
    if (bTooLong) {
        Refuse(pCall.get(), uBytes);
    }
    const std::lock_guard<std::mutex> oLock(m_oLock);
    m_oFlow.RefusedCall(strSender, bTooLong ? uBytes : 0);
}

bool CBusFilter::IsOneTooMany(GDBusMessage* pCall, const std::string& strSender)
{
    return WantsNoAnswer(pCall) && !m_pBacklog->Enter(strSender);
}

void CBusFilter::Refuse(GDBusMessage* pCall, std::size_t uBytes)
{
    if (WantsNoAnswer(pCall)) {
        return;
    }
    const BusMessagePtr pError(g_dbus_message_new_method_error(
        pCall, LIMITS_EXCEEDED,
        "the arguments of this call have %zu bytes, at most %zu are taken: shorten them", uBytes,
        BusLimits::ARGUMENT_BYTES));
    g_dbus_connection_send_message(m_pConnection, pError.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                   nullptr, nullptr);
}

void CBusFilter::Outgoing(BusMessagePtr& pMessage)
{
    if (!IsReply(pMessage.get()) || g_dbus_message_get_destination(pMessage.get()) == nullptr ||
        g_object_get_data(G_OBJECT(pMessage.get()), RELEASED) != nullptr) {
        return;
    }
    const std::lock_guard<std::mutex> oLock(m_oLock);
    m_oFlow.Reply(pMessage);
}

gint64 CBusFilter::Now() const
{
    return g_get_monotonic_time() / 1000 + 1;
}

guint32 CBusFilter::Random()
{
    return m_oRandom();
}

bool CBusFilter::Ask(BusQuestion eKind, const std::string& strName, guint32 uSerial)
{
    const BusMessagePtr pMessage = MakeQuestion(eKind, strName);
    g_dbus_message_set_serial(pMessage.get(), uSerial);
    return g_dbus_connection_send_message(m_pConnection, pMessage.get(),
                                          G_DBUS_SEND_MESSAGE_FLAGS_PRESERVE_SERIAL, nullptr,
                                          nullptr) != FALSE;
}

void CBusFilter::Release(GDBusMessage* pMessage)
{
    g_object_set_data(G_OBJECT(pMessage), RELEASED, this);
    g_dbus_connection_send_message(m_pConnection, pMessage,
                                   G_DBUS_SEND_MESSAGE_FLAGS_PRESERVE_SERIAL, nullptr, nullptr);
}

void CBusFilter::WakeAt(gint64 iTime)
{
    if (m_iTimerAt != 0 && m_iTimerAt <= iTime) {
        return;
    }
    StopTimer();
    m_iTimerAt = iTime;
    const gint64 iWait = std::max<gint64>(iTime - Now(), 0);
    m_pTimer = g_timeout_source_new(static_cast<guint>(iWait));
    g_source_set_callback(m_pTimer, OnTimer, this, nullptr);
    g_source_attach(m_pTimer, nullptr);
}

void CBusFilter::StopTimer()
{
    if (m_pTimer != nullptr) {
        g_source_destroy(m_pTimer);
        g_source_unref(m_pTimer);
        m_pTimer = nullptr;
    }
}

gboolean CBusFilter::OnTimer(gpointer pFilter) noexcept
{
    auto* poFilter = static_cast<CBusFilter*>(pFilter);
    const std::lock_guard<std::mutex> oLock(poFilter->m_oLock);
    // A replaced timer may have fired already and waited for the lock.
    if (g_main_current_source() == poFilter->m_pTimer) {
        poFilter->StopTimer();
        poFilter->m_iTimerAt = 0;
        try {
            poFilter->m_oFlow.Timer();
        } catch (const std::exception&) {
            BILLING_ERROR("no memory for the flow control's timer");
            poFilter->WakeAt(poFilter->Now() + BusLimits::LONGEST_PAUSE_MS);
        }
    }
    return G_SOURCE_REMOVE;
}

void CBusFilter::GiveBack()
{
    platform_process_give_back_memory();
}

void CBusFilter::EndService()
{
    // Raised on the main thread, which takes the signal when it next waits for events.
    raise(SIGTERM);
}
