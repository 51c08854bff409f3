// bus.h - the client's side of the system bus.
#pragma once

#include <gio/gio.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace client {

inline constexpr const char* kService = "org.plevo.billingservice";
inline constexpr const char* kObject = "/org/plevo/billingservice";

struct GFree {
    void operator()(GError* error) const { g_error_free(error); }
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
    void operator()(GDBusConnection* connection) const { g_object_unref(connection); }
    void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
    void operator()(GCancellable* cancellable) const { g_object_unref(cancellable); }
    void operator()(gchar* text) const { g_free(text); }
};
template <typename T>
using GPtr = std::unique_ptr<T, GFree>;

/// The reason why a call has no answer: cause and cure, one line each.
class Unreachable : public std::runtime_error {
public:
    Unreachable(const std::string& cause, const std::string& cure)
        : std::runtime_error(cause), m_cure(cure)
    {
    }
    const std::string& cure() const { return m_cure; }

private:
    std::string m_cure;
};

/// The service's answer to a call of any method.
struct Answer {
    int result = 0;
    std::string info;
    double milliseconds = 0;
};

/// The owner of a bus name.
struct Owner {
    std::optional<unsigned> pid;  ///< empty where the bus does not tell
    std::optional<unsigned> uid;
};

/// The result of a ping.
struct Ping {
    enum Outcome {
        Answered,
        Denied,  ///< by the bus's policy
        Silent,  ///< no answer in time
        Gone,    ///< the service left, or could not be started
    } outcome = Gone;
    std::string error;
    double milliseconds = 0;
};

/// A connection to the system bus. Thread: one.
class Bus {
public:
    /// @param address empty: $DBUS_SYSTEM_BUS_ADDRESS, else the system bus
    /// @param timeout seconds
    /// @throw Unreachable
    Bus(const std::string& address, double timeout);

    /// Calls a method of the service; all arguments are texts.
    /// @param timeout seconds
    /// @throw Unreachable
    Answer call(const std::string& method, const std::vector<std::string>& arguments,
                double timeout) const;
    /// Pings the service, which needs neither key nor store for its answer. The bus starts the service for it.
    /// @param timeout seconds
    Ping ping(double timeout) const;
    /// Asks the bus for the owner of the service's name.
    /// @return nullopt when the name has no owner
    /// @throw Unreachable
    std::optional<Owner> owner() const;
    /// @return whether the bus starts the service when it is called
    bool startsService() const;

    GDBusConnection* connection() const { return m_connection.get(); }

private:
    /// Calls a method of the bus itself.
    /// @param arguments may be floating
    /// @return null when the bus answered with an error
    GPtr<GVariant> ask(const char* method, GVariant* arguments) const;
    std::optional<unsigned> numberOf(const char* method, const char* name) const;

    GPtr<GDBusConnection> m_connection;
};

}  // namespace client
