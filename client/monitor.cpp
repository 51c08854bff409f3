// monitor.cpp - a connection that only listens. Messages arrive on GDBus's thread, one at a time.
#include "monitor.h"

#include "bus.h"
#include "calls.h"
#include "json.h"
#include "text.h"

#include <unistd.h>

#include <cstdio>
#include <map>

namespace client {

namespace {

/// A call that has no answer yet.
struct Pending {
    std::string method;
    gint64 began;
};

class Watcher {
public:
    explicit Watcher(const MonitorOptions& options)
        : m_options(options), m_style(Style::of(STDOUT_FILENO))
    {
    }

    void see(GDBusMessage* message)
    {
        switch (g_dbus_message_get_message_type(message)) {
            case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
                seeCall(message);
                break;
            case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
            case G_DBUS_MESSAGE_TYPE_ERROR:
                seeAnswer(message);
                break;
            case G_DBUS_MESSAGE_TYPE_SIGNAL:
            case G_DBUS_MESSAGE_TYPE_INVALID:
                break;
        }
    }

private:
    using Key = std::pair<std::string, guint32>;  // caller and serial

    static std::string textOf(const char* text) { return text != nullptr ? text : ""; }

    void seeCall(GDBusMessage* message)
    {
        if (textOf(g_dbus_message_get_interface(message)) != SERVICE) {
            return;
        }
        const std::string caller = textOf(g_dbus_message_get_sender(message));
        const guint32 serial = g_dbus_message_get_serial(message);
        const std::string method = textOf(g_dbus_message_get_member(message));
        m_pending[{caller, serial}] = {method, g_get_monotonic_time()};

        GVariant* const body = g_dbus_message_get_body(message);
        const GPtr<gchar> printed(
            g_strdup(body == nullptr || !m_options.showPrivate ? "(...)" : nullptr));
        const GPtr<gchar> arguments(printed == nullptr ? g_variant_print(body, FALSE) : nullptr);
        const char* const shownArguments = printed != nullptr ? printed.get() : arguments.get();
        if (m_options.json) {
            Json::Value value = entry("call", caller, serial, method);
            if (m_options.showPrivate) {
                value["arguments"] = shownArguments;
            }
            print(lineOf(value, false));
        } else {
            print(prefix(caller, serial) + "-> " + shown(method + shownArguments, false));
        }
    }

    void seeAnswer(GDBusMessage* message)
    {
        const std::string caller = textOf(g_dbus_message_get_destination(message));
        const guint32 serial = g_dbus_message_get_reply_serial(message);
        const auto found = m_pending.find({caller, serial});
        if (found == m_pending.end()) {
            return;
        }
        const Pending call = found->second;
        m_pending.erase(found);
        const double milliseconds = static_cast<double>(g_get_monotonic_time() - call.began) / 1000;
        Json::Value value = entry("answer", caller, serial, call.method);
        value["milliseconds"] = milliseconds;
        std::string text;
        GVariant* const body = g_dbus_message_get_body(message);
        if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(is)"))) {
            int result = 0;
            const char* info = nullptr;
            g_variant_get(body, "(i&s)", &result, &info);
            const std::string size = std::to_string(std::string(info).size()) + " bytes";
            value["resp_result"] = result;
            value["bytes"] = static_cast<Json::UInt64>(std::string(info).size());
            if (m_options.showPrivate) {
                value["resp_info"] = info;
            }
            const std::string code = "resp_result " + std::to_string(result);
            text = (result == 0 ? m_style.good(code) : m_style.bad(code)) + ", " +
                   (m_options.showPrivate ? shown(info, false) : size);
        } else {
            const std::string error = textOf(g_dbus_message_get_error_name(message));
            value["error"] = error;
            text = m_style.bad("error ") + shown(error, false);
        }
        char time[32];
        std::snprintf(time, sizeof time, " (%.1f ms)", milliseconds);
        print(m_options.json ? lineOf(value, false)
                             : prefix(caller, serial) + "<- " + call.method + " " + text +
                                   m_style.faint(time));
    }

    static Json::Value entry(const char* kind, const std::string& caller, guint32 serial,
                             const std::string& method)
    {
        Json::Value value;
        value["event"] = kind;
        value["caller"] = caller;
        value["serial"] = serial;
        value["method"] = method;
        return value;
    }

    std::string prefix(const std::string& caller, guint32 serial) const
    {
        const GPtr<gchar> now(nowText());
        return m_style.faint(now.get()) + " " + caller + " #" + std::to_string(serial) + " ";
    }

    static gchar* nowText()
    {
        GDateTime* const now = g_date_time_new_now_local();
        gchar* const text = g_date_time_format(now, "%H:%M:%S.%f");
        g_date_time_unref(now);
        return text;
    }

    static void print(const std::string& line)
    {
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    }

    const MonitorOptions m_options;
    const Style m_style;
    std::map<Key, Pending> m_pending;
};

// Nothing but watching: no message goes on to GDBus, which would answer it.
GDBusMessage* onMessage(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                        gpointer watcher)
{
    if (incoming == FALSE ||
        g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_INVALID) {
        return message;
    }
    static_cast<Watcher*>(watcher)->see(message);
    g_object_unref(message);
    return nullptr;
}

void onClosed(GDBusConnection*, gboolean, GError*, gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
}

void becomeMonitor(GDBusConnection* connection)
{
    const std::string rules[] = {
        std::string("type='method_call',interface='") + SERVICE + "'",
        std::string("type='method_return',sender='") + SERVICE + "'",
        std::string("type='error',sender='") + SERVICE + "'",
    };
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("as"));
    for (const std::string& rule : rules) {
        g_variant_builder_add(&builder, "s", rule.c_str());
    }
    GError* error = nullptr;
    const GPtr<GVariant> done(g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus.Monitoring", "BecomeMonitor", g_variant_new("(asu)", &builder, 0U),
        nullptr, G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, &error));
    if (done == nullptr) {
        const GPtr<GError> owner(error);
        g_dbus_error_strip_remote_error(error);
        throw Unreachable(std::string("the bus does not let this user watch: ") + error->message,
                          "run this as root");
    }
}

}  // namespace

int monitor(const MonitorOptions& options)
{
    try {
        const Bus bus(options.bus, BUS_TIMEOUT);
        const GPtr<GMainLoop> loop(g_main_loop_new(nullptr, FALSE));
        becomeMonitor(bus.connection());
        Watcher watcher(options);
        const guint filter =
            g_dbus_connection_add_filter(bus.connection(), onMessage, &watcher, nullptr);
        g_signal_connect(bus.connection(), "closed", G_CALLBACK(onClosed), loop.get());
        std::fprintf(stderr, "Watching %s; Ctrl-C ends it.\n", SERVICE);
        if (g_dbus_connection_is_closed(bus.connection()) == FALSE) {
            g_main_loop_run(loop.get());
        }
        g_dbus_connection_remove_filter(bus.connection(), filter);
        throw Unreachable("the bus has closed the connection", "start it again");
    } catch (const Unreachable& error) {
        report("monitor", error.what(), error.cure(), options.json);
        return EXIT_UNREACHABLE;
    }
}

}  // namespace client
