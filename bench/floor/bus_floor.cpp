// bus_floor.cpp - the cost of a call whose service does nothing: the lower limit of the daemon's bus side.
//
// usage: bus_floor NAME SIZE     owns NAME and answers every method of the daemon's interface with
//                                (0, SIZE letters) at once, until SIGTERM
#include "serve.h"

#include <string>

namespace {

void answer(GDBusConnection*, const char*, const char*, const char*, const char*, GVariant*,
            GDBusMethodInvocation* invocation, void* text)
{
    g_dbus_method_invocation_return_value(
        invocation, g_variant_new("(is)", 0, static_cast<std::string*>(text)->c_str()));
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        fail("usage", "bus_floor NAME SIZE");
    std::string text(std::strtoul(argv[2], nullptr, 10), 'x');
    serve(argv[1], answer, &text);
    return 0;
}
