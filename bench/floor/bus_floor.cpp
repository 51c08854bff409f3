// bus_floor.cpp - what a call costs when its service does nothing: the floor under the daemon's bus
// side.
//
// usage: bus_floor NAME SIZE     owns NAME and answers every method of the daemon's interface with
//                                (0, SIZE letters) at once, until SIGTERM
#include "../bus.h"

#include <glib-unix.h>

#include <string>

namespace {

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

void answer(GDBusConnection*, const char*, const char*, const char*, const char*, GVariant*,
            GDBusMethodInvocation* invocation, void* text)
{
    g_dbus_method_invocation_return_value(
        invocation, g_variant_new("(is)", 0, static_cast<std::string*>(text)->c_str()));
}

gboolean quit(void* loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        fail("usage", "bus_floor NAME SIZE");
    std::string text(std::strtoul(argv[2], nullptr, 10), 'x');
    const Connection connection = connectToBus();
    GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(kXml, nullptr);
    const GDBusInterfaceVTable table{answer, nullptr, nullptr, {}};
    g_dbus_connection_register_object(connection.get(), kObject, node->interfaces[0], &table, &text,
                                      nullptr, nullptr);
    g_bus_own_name_on_connection(connection.get(), argv[1], G_BUS_NAME_OWNER_FLAGS_NONE, nullptr,
                                 nullptr, nullptr, nullptr);
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGTERM, quit, loop);
    g_main_loop_run(loop);
    return 0;
}
