// bus.h - the bus connection and the error exit of the benchmark programs.
#pragma once

#include <gio/gio.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

constexpr const char* kObject = "/org/plevo/billingservice";
constexpr const char* kInterface = "org.plevo.billingservice";

template <typename Object>
struct Unref {
    void operator()(Object* object) const { g_object_unref(object); }
};
using Connection = std::unique_ptr<GDBusConnection, Unref<GDBusConnection>>;

[[noreturn]] inline void fail(const char* what, const char* why)
{
    std::fprintf(stderr, "%s: %s\n", what, why);
    std::exit(1);
}

/// Connects to the bus of DBUS_SYSTEM_BUS_ADDRESS.
inline Connection connectToBus()
{
    GError* error = nullptr;
    GDBusConnection* const connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (connection == nullptr)
        fail("no bus", error->message);
    return Connection(connection);
}
