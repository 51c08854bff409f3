// BusMessage.cpp - helpers of the flow control for messages of the bus library.
#include "BusMessage.h"

namespace {

constexpr const char* LIMITS_EXCEEDED = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* UNREAD_KEY = "OutgoingBytes";

struct VariantUnref {
    void operator()(GVariant* pVariant) const { g_variant_unref(pVariant); }
};
using VariantPtr = std::unique_ptr<GVariant, VariantUnref>;

void ReadValue(GVariant* pBody, BusAnswer& tAnswer)
{
    if (g_variant_is_of_type(pBody, G_VARIANT_TYPE("(u)")) != FALSE) {
        g_variant_get(pBody, "(u)", &tAnswer.uValue);
        tAnswer.bValue = true;
    } else if (g_variant_is_of_type(pBody, G_VARIANT_TYPE("(a{sv})")) != FALSE) {
        const VariantPtr pFacts(g_variant_get_child_value(pBody, 0));
        tAnswer.bValue = g_variant_lookup(pFacts.get(), UNREAD_KEY, "u", &tAnswer.uValue) != FALSE;
    }
}

}  // namespace

std::size_t BodyBytes(GDBusMessage* pMessage)
{
    GVariant* pBody = g_dbus_message_get_body(pMessage);
    return pBody != nullptr ? g_variant_get_size(pBody) : 0;
}

BusMessagePtr MakeRefusal(GDBusMessage* pReply, const char* szText)
{
    BusMessagePtr pError(g_dbus_message_new());
    g_dbus_message_set_message_type(pError.get(), G_DBUS_MESSAGE_TYPE_ERROR);
    g_dbus_message_set_flags(pError.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    g_dbus_message_set_reply_serial(pError.get(), g_dbus_message_get_reply_serial(pReply));
    g_dbus_message_set_destination(pError.get(), g_dbus_message_get_destination(pReply));
    g_dbus_message_set_error_name(pError.get(), LIMITS_EXCEEDED);
    g_dbus_message_set_body(pError.get(), g_variant_new("(s)", szText));
    g_dbus_message_set_serial(pError.get(), g_dbus_message_get_serial(pReply));
    return pError;
}

BusAnswer ReadAnswer(GDBusMessage* pMessage)
{
    BusAnswer tAnswer;
    const gchar* szSender = g_dbus_message_get_sender(pMessage);
    tAnswer.strSender = szSender != nullptr ? szSender : "";
    if (g_dbus_message_get_message_type(pMessage) == G_DBUS_MESSAGE_TYPE_ERROR) {
        const gchar* szError = g_dbus_message_get_error_name(pMessage);
        tAnswer.strError = szError != nullptr ? szError : "";
        return tAnswer;
    }
    GVariant* pBody = g_dbus_message_get_body(pMessage);
    if (pBody != nullptr) {
        ReadValue(pBody, tAnswer);
    }
    return tAnswer;
}
