// filter_doubles.cpp - replaces functions of the bus library, the clock and the process.
#include "filter_doubles.h"

#include "BusFilter.h"
#include "held_locks.h"
#include "log_matchers.h"

#include <csignal>

namespace {

GDBusConnection* const CONNECTION = reinterpret_cast<GDBusConnection*>(0x1000);
FilterDoubles* g_ptDoubles = nullptr;

GVariant* Text(std::size_t uBodyBytes)
{
    // A body of type "(s)" is the text and its final NUL.
    return g_variant_new("(s)", std::string(uBodyBytes - 1, 'x').c_str());
}

}  // namespace

FilterDoubles& Filter()
{
    return *g_ptDoubles;
}

extern "C" {
guint __wrap_g_dbus_connection_add_filter(GDBusConnection* pConnection,
                                          GDBusMessageFilterFunction pfnFilter, gpointer pFilter,
                                          GDestroyNotify pfnEnd)
{
    Note("add_filter");
    EXPECT_EQ(Filter().pfnFilter, nullptr) << "one filter";
    Filter().pConnection = pConnection;
    Filter().pfnFilter = pfnFilter;
    Filter().pFilter = pFilter;
    Filter().pfnEnd = pfnEnd;
    return 1;
}

const gchar* __wrap_g_dbus_connection_get_unique_name(GDBusConnection* pConnection)
{
    EXPECT_EQ(pConnection, CONNECTION);
    return Filter().szUniqueName;
}

gboolean __wrap_g_dbus_connection_send_message(GDBusConnection* pConnection, GDBusMessage* pMessage,
                                               GDBusSendMessageFlags eFlags,
                                               volatile guint32* puSerial, GError** ptError)
{
    Note("send");
    EXPECT_EQ(pConnection, CONNECTION);
    EXPECT_EQ(puSerial, nullptr);
    EXPECT_EQ(ptError, nullptr);
    const bool bReleased = g_object_get_data(G_OBJECT(pMessage), "billing-released") != nullptr;
    Filter().sent.push_back({BusMessagePtr(static_cast<GDBusMessage*>(g_object_ref(pMessage))),
                             eFlags, HeldLocks(), bReleased});
    return Filter().bSends ? TRUE : FALSE;
}

gint64 __wrap_g_get_monotonic_time()
{
    return Filter().iMicroseconds;
}

GSource* __real_g_timeout_source_new(guint uMilliseconds);
GSource* __wrap_g_timeout_source_new(guint uMilliseconds)
{
    EXPECT_EQ(HeldLocks(), 1u) << "the timer is behind the flow's lock";
    Filter().timers.push_back(uMilliseconds);
    // The real timer is due at once; the double's clock decides when the test runs it.
    GSource* const pTimer = __real_g_timeout_source_new(0);
    g_source_set_dispose_function(pTimer, [](GSource*) { ++Filter().uTimersGone; });
    return pTimer;
}

guint __real_g_source_attach(GSource* pSource, GMainContext* pContext);
guint __wrap_g_source_attach(GSource* pSource, GMainContext* pContext)
{
    EXPECT_EQ(pContext, nullptr);
    EXPECT_NE(pSource->callback_data, nullptr) << "the main thread may dispatch it at once";
    return __real_g_source_attach(pSource, pContext);
}

GSource* __real_g_main_current_source();
GSource* __wrap_g_main_current_source()
{
    return Filter().bForeignSource ? nullptr : __real_g_main_current_source();
}

int __wrap_malloc_trim(std::size_t uPad)
{
    EXPECT_EQ(uPad, 0u);
    ++Filter().uTrims;
    return 1;
}

int __wrap_raise(int iSignal)
{
    Filter().signals.push_back(iSignal);
    return 0;
}
}

ABusFilter::ABusFilter()
{
    fake::platform().reset();
    g_ptDoubles = new FilterDoubles;
}

ABusFilter::~ABusFilter()
{
    end();
    EXPECT_EQ(g_main_context_pending(nullptr), FALSE) << "a timer is left";
    EXPECT_EQ(Filter().uTimersGone, Filter().timers.size()) << "a timer's memory is kept";
    delete g_ptDoubles;
    g_ptDoubles = nullptr;
}

void ABusFilter::install()
{
    CBusFilter::Install(CONNECTION);
    ASSERT_NE(Filter().pfnFilter, nullptr);
    EXPECT_EQ(Filter().pConnection, CONNECTION);
}

void ABusFilter::end()
{
    if (Filter().pfnEnd != nullptr) {
        Filter().pfnEnd(Filter().pFilter);
        Filter().pfnEnd = nullptr;
    }
}

BusMessagePtr ABusFilter::pass(BusMessagePtr pMessage, gboolean bIncoming)
{
    BusMessagePtr pOut(
        Filter().pfnFilter(CONNECTION, pMessage.release(), bIncoming, Filter().pFilter));
    EXPECT_EQ(HeldLocks(), 0u);
    return pOut;
}

BusMessagePtr ABusFilter::answer(std::size_t uQuestion, GVariant* pBody, const char* szFrom)
{
    BusMessagePtr pAnswer(g_dbus_message_new());
    g_dbus_message_set_message_type(pAnswer.get(), G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    g_dbus_message_set_reply_serial(
        pAnswer.get(), g_dbus_message_get_serial(Filter().sent.at(uQuestion).pMessage.get()));
    g_dbus_message_set_sender(pAnswer.get(), szFrom);
    if (pBody != nullptr) {
        g_dbus_message_set_body(pAnswer.get(), pBody);
    }
    return incoming(std::move(pAnswer));
}

BusMessagePtr ABusFilter::fails(std::size_t uQuestion, const char* szError)
{
    BusMessagePtr pError(g_dbus_message_new());
    g_dbus_message_set_message_type(pError.get(), G_DBUS_MESSAGE_TYPE_ERROR);
    g_dbus_message_set_error_name(pError.get(), szError);
    g_dbus_message_set_reply_serial(
        pError.get(), g_dbus_message_get_serial(Filter().sent.at(uQuestion).pMessage.get()));
    g_dbus_message_set_sender(pError.get(), THE_BUS);
    return incoming(std::move(pError));
}

BusMessagePtr ABusFilter::unread(std::size_t uQuestion, guint32 uBytes)
{
    GVariantDict tFacts;
    g_variant_dict_init(&tFacts, nullptr);
    g_variant_dict_insert(&tFacts, "OutgoingBytes", "u", uBytes);
    return answer(uQuestion, g_variant_new("(@a{sv})", g_variant_dict_end(&tFacts)));
}

void ABusFilter::pass(gint64 iMilliseconds)
{
    Filter().iMicroseconds += iMilliseconds * 1000;
    g_main_context_iteration(nullptr, FALSE);
}

BusMessagePtr MakeCall(const std::string& strSender, std::size_t uBodyBytes, bool bWantsAnswer)
{
    BusMessagePtr pCall(g_dbus_message_new_method_call(nullptr, "/a", "a.b", "c"));
    g_dbus_message_set_sender(pCall.get(), strSender.c_str());
    g_dbus_message_set_serial(pCall.get(), 77);
    if (!bWantsAnswer) {
        g_dbus_message_set_flags(pCall.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    }
    if (uBodyBytes > 0) {
        g_dbus_message_set_body(pCall.get(), Text(uBodyBytes));
    }
    return pCall;
}

BusMessagePtr MakeReply(const std::string& strTo, std::size_t uBodyBytes)
{
    static guint32 uSerial = 100;
    BusMessagePtr pReply(g_dbus_message_new());
    g_dbus_message_set_message_type(pReply.get(), G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
    g_dbus_message_set_destination(pReply.get(), strTo.c_str());
    g_dbus_message_set_serial(pReply.get(), ++uSerial);
    g_dbus_message_set_reply_serial(pReply.get(), 3);
    g_dbus_message_set_body(pReply.get(), Text(uBodyBytes));
    return pReply;
}
