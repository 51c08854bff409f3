// caller.cpp - calls a service on the bus and measures the time of each call.
//
// usage: caller NAME COUNT IN_FLIGHT METHOD [TEXT...]
//
// Keeps IN_FLIGHT calls open until COUNT were answered, each with result 0. Prints JSON.
#include "bus.h"
#include "samples.h"

#include <algorithm>

namespace {

// Longer than the daemon's own time-out for a server.
constexpr int kTimeoutMs = 300'000;

struct Run {
    GDBusConnection* connection;
    const char* name;
    const char* method;
    char** texts;
    int toStart;
    int toFinish;
    GMainLoop* loop;
    Samples samples;
};

struct Call {
    Run& run;
    Samples::Clock::time_point began;
};

void start(Run& run);

void answered(GObject* source, GAsyncResult* outcome, void* data)
{
    const std::unique_ptr<Call> call(static_cast<Call*>(data));
    Run& run = call->run;
    GError* error = nullptr;
    GVariant* const reply =
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), outcome, &error);
    if (reply == nullptr)
        fail("call", error->message);
    int result = -1;
    g_variant_get(reply, "(i&s)", &result, nullptr);
    if (result != 0)
        fail("call", "the answer is not 0");
    g_variant_unref(reply);
    run.samples.add(call->began);
    if (run.toStart > 0)
        start(run);
    if (--run.toFinish == 0)
        g_main_loop_quit(run.loop);
}

void start(Run& run)
{
    run.toStart--;
    GVariantBuilder arguments;
    g_variant_builder_init(&arguments, G_VARIANT_TYPE_TUPLE);
    for (char** text = run.texts; *text != nullptr; text++)
        g_variant_builder_add(&arguments, "s", *text);
    g_dbus_connection_call(run.connection, run.name, kObject, kInterface, run.method,
                           g_variant_builder_end(&arguments), G_VARIANT_TYPE("(is)"),
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, kTimeoutMs, nullptr, answered,
                           new Call{run, Samples::Clock::now()});
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 5)
        fail("usage", "caller NAME COUNT IN_FLIGHT METHOD [TEXT...]");
    const Connection connection = connectToBus();
    const int count = std::max(std::atoi(argv[2]), 1);
    Run run{connection.get(),
            argv[1],
            argv[4],
            argv + 5,
            count,
            count,
            g_main_loop_new(nullptr, FALSE),
            {}};
    for (int i = std::clamp(std::atoi(argv[3]), 1, count); i > 0; i--)
        start(run);
    g_main_loop_run(run.loop);
    run.samples.print();
    return 0;
}
