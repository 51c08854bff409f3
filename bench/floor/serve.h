// serve.h - a service on the bus with the daemon's interface, until SIGTERM.
#pragma once

#include "../bus.h"

#include <glib-unix.h>

constexpr const char* kXml = R"(<node><interface name="org.plevo.billingservice">
  <method name="check_server_availability">
    <arg type="i" name="resp_result" direction="out"/>
    <arg type="s" name="resp_info" direction="out"/>
  </method>
  <method name="get_product_list">
    <arg type="s" name="appid" direction="in"/>
    <arg type="s" name="serverType" direction="in"/>
    <arg type="s" name="CheckValue" direction="in"/>
    <arg type="i" name="resp_result" direction="out"/>
    <arg type="s" name="resp_info" direction="out"/>
  </method>
</interface></node>)";

inline gboolean quit(void* loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

/// @param answer  called with `data` for each method call
inline void serve(const char* name, GDBusInterfaceMethodCallFunc answer, void* data)
{
    const Connection connection = connectToBus();
    GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(kXml, nullptr);
    const GDBusInterfaceVTable table{answer, nullptr, nullptr, {}};
    g_dbus_connection_register_object(connection.get(), kObject, node->interfaces[0], &table, data,
                                      nullptr, nullptr);
    g_bus_own_name_on_connection(connection.get(), name, G_BUS_NAME_OWNER_FLAGS_NONE, nullptr,
                                 nullptr, nullptr, nullptr);
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGTERM, quit, loop);
    g_main_loop_run(loop);
}
