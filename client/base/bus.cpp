// bus.cpp - connects to the bus, calls the service, and explains failures.
#include "bus.h"

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace client {

namespace {

constexpr int kBusTimeoutMs = 10000;

constexpr const char* kStartBus =
    "start the message bus, or name another one with --bus or DBUS_SYSTEM_BUS_ADDRESS";
constexpr const char* kOpenBus =
    "call as a user who may open the bus's socket, or name another one with --bus or "
    "DBUS_SYSTEM_BUS_ADDRESS";
constexpr const char* kStartService =
    "start the service (systemctl start billing-service) and look at its log";

/// Cancels an operation when its time is over. GDBus has no time-out for connecting: a listener may accept the connection
/// and never answer.
class Deadline {
public:
    explicit Deadline(double seconds)
        : m_cancellable(g_cancellable_new()), m_thread([this, seconds] { wait(seconds); })
    {
    }
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;
    ~Deadline()
    {
        {
            const std::lock_guard<std::mutex> hold(m_lock);
            m_done = true;
        }
        m_changed.notify_one();
        m_thread.join();
    }

    GCancellable* cancellable() const { return m_cancellable.get(); }

private:
    void wait(double seconds)
    {
        std::unique_lock<std::mutex> hold(m_lock);
        if (!m_changed.wait_for(hold, std::chrono::duration<double>(seconds),
                                [this] { return m_done; })) {
            g_cancellable_cancel(m_cancellable.get());
        }
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_done = false;
    const GPtr<GCancellable> m_cancellable;
    std::thread m_thread;
};

std::string inTime(double seconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "within %g s", seconds);
    return text;
}

/// @return the text of an error without the D-Bus error name in front of it
std::string messageOf(GError* error)
{
    g_dbus_error_strip_remote_error(error);
    return error->message;
}

Unreachable explained(GError* error, double timeout)
{
    const GPtr<GError> owner(error);
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER)) {
        return {std::string("the name ") + kService + " has no owner on the bus", kStartService};
    }
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NO_REPLY)) {
        return {"the service left the bus before it answered",
                "look at its log; whether the store got the request is not known"};
    }
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT)) {
        return {"the service did not answer " + inTime(timeout),
                "a transfer may take 90 s: wait longer with --timeout, and look at its log"};
    }
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED)) {
        return {"the bus does not let this user call the service: " + messageOf(error),
                "call as a user of the group that the bus policy names"};
    }
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_LIMITS_EXCEEDED)) {
        return {"the bus refused the call: " + messageOf(error),
                "wait for answers that are outstanding"};
    }
    return {"the call failed: " + messageOf(error), kStartService};
}

}  // namespace

Bus::Bus(const std::string& address, double timeout)
{
    const Deadline deadline(timeout);
    GError* error = nullptr;
    const GPtr<gchar> own(address.empty()
                              ? g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error)
                              : g_strdup(address.c_str()));
    if (own != nullptr) {
        m_connection.reset(g_dbus_connection_new_for_address_sync(
            own.get(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, deadline.cancellable(), &error));
    }
    if (m_connection == nullptr) {
        const GPtr<GError> owner(error);
        if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
            throw Unreachable(
                "what listens at the address of the bus said nothing " + inTime(timeout),
                kStartBus);
        }
        const bool denied = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PERMISSION_DENIED);
        throw Unreachable("the system bus cannot be reached: " + messageOf(error),
                          denied ? kOpenBus : kStartBus);
    }
}

Answer Bus::call(const std::string& method, const std::vector<std::string>& arguments,
                 double timeout) const
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
    for (const std::string& argument : arguments) {
        g_variant_builder_add(&builder, "s", argument.c_str());
    }
    GError* error = nullptr;
    const gint64 began = g_get_monotonic_time();
    const GPtr<GVariant> reply(g_dbus_connection_call_sync(
        m_connection.get(), kService, kObject, kService, method.c_str(),
        g_variant_builder_end(&builder), G_VARIANT_TYPE("(is)"), G_DBUS_CALL_FLAGS_NONE,
        static_cast<int>(std::lround(timeout * 1000)), nullptr, &error));
    if (reply == nullptr) {
        throw explained(error, timeout);
    }
    Answer answer;
    const char* info = nullptr;
    g_variant_get(reply.get(), "(i&s)", &answer.result, &info);
    answer.info = info;
    answer.milliseconds = static_cast<double>(g_get_monotonic_time() - began) / 1000;
    return answer;
}

Ping Bus::ping(double timeout) const
{
    GError* error = nullptr;
    const gint64 began = g_get_monotonic_time();
    const GPtr<GVariant> reply(g_dbus_connection_call_sync(
        m_connection.get(), kService, kObject, "org.freedesktop.DBus.Peer", "Ping", nullptr,
        nullptr, G_DBUS_CALL_FLAGS_NONE, static_cast<int>(std::lround(timeout * 1000)), nullptr,
        &error));
    Ping ping;
    ping.milliseconds = static_cast<double>(g_get_monotonic_time() - began) / 1000;
    if (reply != nullptr) {
        ping.outcome = Ping::Answered;
        return ping;
    }
    const GPtr<GError> owner(error);
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) && this->owner()) {
        ping.outcome = Ping::Silent;
    } else if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED)) {
        ping.outcome = Ping::Denied;
    }
    ping.error = messageOf(error);
    return ping;
}

GPtr<GVariant> Bus::ask(const char* method, GVariant* arguments) const
{
    return GPtr<GVariant>(g_dbus_connection_call_sync(
        m_connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        method, arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, kBusTimeoutMs, nullptr, nullptr));
}

std::optional<unsigned> Bus::numberOf(const char* method, const char* name) const
{
    const GPtr<GVariant> reply = ask(method, g_variant_new("(s)", name));
    if (reply == nullptr || g_variant_is_of_type(reply.get(), G_VARIANT_TYPE("(u)")) == FALSE) {
        return std::nullopt;
    }
    guint32 number = 0;
    g_variant_get(reply.get(), "(u)", &number);
    return number;
}

std::optional<Owner> Bus::owner() const
{
    const GPtr<GVariant> reply = ask("GetNameOwner", g_variant_new("(s)", kService));
    if (reply == nullptr) {
        return std::nullopt;
    }
    const char* name = nullptr;
    g_variant_get(reply.get(), "(&s)", &name);
    return Owner{numberOf("GetConnectionUnixProcessID", name),
                 numberOf("GetConnectionUnixUser", name)};
}

bool Bus::startsService() const
{
    const GPtr<GVariant> reply = ask("ListActivatableNames", nullptr);
    if (reply == nullptr) {
        return false;
    }
    const char* name = nullptr;
    GVariantIter* names = nullptr;
    g_variant_get(reply.get(), "(as)", &names);
    bool found = false;
    while (g_variant_iter_next(names, "&s", &name) != FALSE) {
        found = found || std::string(name) == kService;
    }
    g_variant_iter_free(names);
    return found;
}

}  // namespace client
