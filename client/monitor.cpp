// monitor.cpp - a connection that only listens. GDBus delivers messages on its own thread, one at a time.
#include "monitor.h"

#include "base/bus.h"
#include "base/calls.h"
#include "base/json.h"
#include "base/text.h"

#include <unistd.h>

#include <cstdio>
#include <map>

namespace client {

namespace {

constexpr const char* kBus = "org.freedesktop.DBus";

/// A call that has no answer yet.
struct Pending {
    std::string method;
    gint64 began;

    double milliseconds() const
    {
        return static_cast<double>(g_get_monotonic_time() - began) / 1000;
    }
};

/// The caller's bus name and the call's serial.
using Key = std::pair<std::string, guint32>;

std::string orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

std::string nowAs(const char* format)
{
    GDateTime* const now = g_date_time_new_now_local();
    const GPtr<gchar> text(g_date_time_format(now, format));
    g_date_time_unref(now);
    return orEmpty(text.get());
}

/// The output for an event: a line for people, a JSON value for programs.
struct Event {
    Event(const char* kind, const Key& key, const std::string& method)
    {
        value["event"] = kind;
        value["time"] = nowAs("%Y-%m-%dT%H:%M:%S.%f%:z");
        value["caller"] = key.first;
        value["serial"] = key.second;
        value["method"] = method;
    }

    Json::Value value;
    std::string line;
};

/// @return the arguments of a call; those that are not texts in GVariant's text form
Json::Value argumentsOf(GVariant* body)
{
    Json::Value arguments(Json::arrayValue);
    for (gsize i = 0; body != nullptr && i < g_variant_n_children(body); ++i) {
        const GPtr<GVariant> child(g_variant_get_child_value(body, i));
        const bool text = g_variant_is_of_type(child.get(), G_VARIANT_TYPE_STRING) != FALSE;
        const GPtr<gchar> printed(text ? g_variant_dup_string(child.get(), nullptr)
                                       : g_variant_print(child.get(), TRUE));
        arguments.append(printed.get());
    }
    return arguments;
}

gboolean endLoop(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

class Watcher {
public:
    Watcher(const MonitorOptions& options, GMainLoop* loop)
        : m_options(options), m_style(Style::of(STDOUT_FILENO)), m_loop(loop)
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
                seeSignal(message);
                break;
            case G_DBUS_MESSAGE_TYPE_INVALID:
                break;
        }
    }

private:
    void seeCall(GDBusMessage* message)
    {
        const Key key(orEmpty(g_dbus_message_get_sender(message)),
                      g_dbus_message_get_serial(message));
        const std::string method = orEmpty(g_dbus_message_get_member(message));
        if ((g_dbus_message_get_flags(message) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0) {
            m_pending[key] = {method, g_get_monotonic_time()};
        }
        Event event("call", key, method);
        std::string arguments = "(...)";
        if (m_options.showPrivate) {
            GVariant* const body = g_dbus_message_get_body(message);
            event.value["arguments"] = argumentsOf(body);
            const GPtr<gchar> printed(body != nullptr ? g_variant_print(body, FALSE)
                                                      : g_strdup("()"));
            arguments = printed.get();
        }
        event.line = "-> " + shown(method + arguments, false);
        print(key, event);
    }

    void seeAnswer(GDBusMessage* message)
    {
        const Key key(orEmpty(g_dbus_message_get_destination(message)),
                      g_dbus_message_get_reply_serial(message));
        const auto found = m_pending.find(key);
        if (found == m_pending.end()) {
            return;
        }
        const Pending call = found->second;
        m_pending.erase(found);
        Event event("answer", key, call.method);
        event.line = "<- " + shown(call.method, false) + " ";
        GVariant* const body = g_dbus_message_get_body(message);
        if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(is)")) != FALSE) {
            describe(event, body);
        } else {
            const std::string error = orEmpty(g_dbus_message_get_error_name(message));
            event.value["error"] = error;
            event.line += m_style.bad("error ") + shown(error, false);
        }
        finish(key, event, call);
    }

    void describe(Event& event, GVariant* answer)
    {
        int result = 0;
        const char* text = nullptr;
        g_variant_get(answer, "(i&s)", &result, &text);
        const std::string info = text;
        event.value["resp_result"] = result;
        event.value["bytes"] = static_cast<Json::UInt64>(info.size());
        if (m_options.showPrivate) {
            event.value["resp_info"] = info;
        }
        const std::string code = "resp_result " + std::to_string(result);
        event.line +=
            (result == 0 ? m_style.good(code) : m_style.bad(code)) + ", " +
            (m_options.showPrivate ? shown(info, false) : std::to_string(info.size()) + " bytes");
    }

    /// Ends the calls of a caller that has left the bus: they get no answer.
    void seeSignal(GDBusMessage* message)
    {
        GVariant* const body = g_dbus_message_get_body(message);
        if (orEmpty(g_dbus_message_get_sender(message)) != kBus ||
            orEmpty(g_dbus_message_get_member(message)) != "NameOwnerChanged" || body == nullptr ||
            g_variant_is_of_type(body, G_VARIANT_TYPE("(sss)")) == FALSE) {
            return;
        }
        const char* name = nullptr;
        const char* owner = nullptr;
        g_variant_get(body, "(&s&s&s)", &name, nullptr, &owner);
        if (*owner != '\0') {
            return;
        }
        for (auto at = m_pending.lower_bound({name, 0});
             at != m_pending.end() && at->first.first == name; at = m_pending.erase(at)) {
            Event event("left", at->first, at->second.method);
            event.line = "-- " + shown(at->second.method, false) + ": the caller left";
            finish(at->first, event, at->second);
        }
    }

    void finish(const Key& key, Event& event, const Pending& call)
    {
        const double milliseconds = call.milliseconds();
        char time[32];
        std::snprintf(time, sizeof time, " (%.1f ms)", milliseconds);
        event.value["milliseconds"] = milliseconds;
        event.line += m_style.faint(time);
        print(key, event);
    }

    void print(const Key& key, const Event& event)
    {
        if (m_options.json) {
            printLine(event.value);
        } else {
            std::printf("%s %s #%u %s\n", m_style.faint(nowAs("%H:%M:%S.%f")).c_str(),
                        key.first.c_str(), key.second, event.line.c_str());
        }
        if (std::fflush(stdout) != 0) {
            // By the loop itself: a loop that is told to quit before it runs goes on.
            g_idle_add(endLoop, m_loop);
        }
    }

    const MonitorOptions m_options;
    const Style m_style;
    GMainLoop* const m_loop;  // not owned
    std::map<Key, Pending> m_pending;
};

// Takes watched calls away from GDBus, which would answer them.
GDBusMessage* onMessage(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                        gpointer watcher)
{
    if (incoming == FALSE) {
        return message;
    }
    static_cast<Watcher*>(watcher)->see(message);
    if (g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return message;
    }
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
        std::string("type='method_call',interface='") + kService + "'",
        std::string("type='method_return',sender='") + kService + "'",
        std::string("type='error',sender='") + kService + "'",
        // Errors of the bus: the name has no owner, or the service left the bus before its answer.
        std::string("type='error',sender='") + kBus + "'",
        std::string("type='signal',sender='") + kBus + "',member='NameOwnerChanged'",
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
        const Bus bus(options.bus, kBusTimeout);
        const GPtr<GMainLoop> loop(g_main_loop_new(nullptr, FALSE));
        Watcher watcher(options, loop.get());
        const guint filter =
            g_dbus_connection_add_filter(bus.connection(), onMessage, &watcher, nullptr);
        becomeMonitor(bus.connection());
        g_signal_connect(bus.connection(), "closed", G_CALLBACK(onClosed), loop.get());
        std::fprintf(stderr, "Watching %s; Ctrl-C ends it.\n", kService);
        if (g_dbus_connection_is_closed(bus.connection()) == FALSE) {
            g_main_loop_run(loop.get());
        }
        g_dbus_connection_remove_filter(bus.connection(), filter);
        if (std::ferror(stdout) != 0) {
            return EXIT_FAILED;
        }
        throw Unreachable("the bus has closed the connection", "start it again");
    } catch (const Unreachable& error) {
        printFailure("monitor", error.what(), error.cure(), options.json);
        return EXIT_UNREACHABLE;
    }
}

}  // namespace client
