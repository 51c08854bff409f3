// bench_probe.cpp - the floors under the daemon's latency, and the stop watch.
//
// usage: bench_probe floor NAME TEXT                  a bus service that answers (0, TEXT) at once
//        bench_probe call NAME COUNT METHOD [TEXT...] calls one after the other
//        bench_probe fetch URL CA_FILE COUNT          the same with libcurl alone, connection kept
// "call" and "fetch" print one number a line: the microseconds that each took. The bus is that of
// DBUS_SYSTEM_BUS_ADDRESS.
#include <curl/curl.h>
#include <gio/gio.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace {

constexpr const char* kObject = "/org/plevo/billingservice";
constexpr const char* kInterface = "org.plevo.billingservice";
constexpr const char* kXml = R"(<node><interface name="org.plevo.billingservice">
  <method name="check_server_availability">
    <arg type="i" name="resp_result" direction="out"/>
    <arg type="s" name="resp_info" direction="out"/>
  </method>
</interface></node>)";

template <typename Object>
struct Unref {
    void operator()(Object* object) const { g_object_unref(object); }
};
using Connection = std::unique_ptr<GDBusConnection, Unref<GDBusConnection>>;

[[noreturn]] void fail(const char* what, const char* why)
{
    std::fprintf(stderr, "bench_probe: %s: %s\n", what, why);
    std::exit(1);
}

Connection connectToBus()
{
    GError* error = nullptr;
    GDBusConnection* const connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (connection == nullptr)
        fail("no bus", error->message);
    return Connection(connection);
}

/// Prints how long each of the runs took.
void measure(int count, const std::function<void()>& run)
{
    using Clock = std::chrono::steady_clock;
    for (int i = 0; i < count; i++) {
        const auto begin = Clock::now();
        run();
        std::printf("%.1f\n",
                    std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }
}

void answer(GDBusConnection*, const char*, const char*, const char*, const char*, GVariant*,
            GDBusMethodInvocation* invocation, void* text)
{
    g_dbus_method_invocation_return_value(invocation,
                                          g_variant_new("(is)", 0, static_cast<const char*>(text)));
}

int serveFloor(const char* name, char* text)
{
    const Connection connection = connectToBus();
    GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(kXml, nullptr);
    const GDBusInterfaceVTable table{answer, nullptr, nullptr, {}};
    g_dbus_connection_register_object(connection.get(), kObject, node->interfaces[0], &table, text,
                                      nullptr, nullptr);
    g_bus_own_name_on_connection(connection.get(), name, G_BUS_NAME_OWNER_FLAGS_NONE, nullptr,
                                 nullptr, nullptr, nullptr);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    return 0;
}

int callService(const char* name, int count, const char* method, char** texts)
{
    const Connection connection = connectToBus();
    measure(count, [&] {
        GVariantBuilder arguments;
        g_variant_builder_init(&arguments, G_VARIANT_TYPE_TUPLE);
        for (char** text = texts; *text != nullptr; text++)
            g_variant_builder_add(&arguments, "s", *text);
        GError* error = nullptr;
        GVariant* const reply = g_dbus_connection_call_sync(
            connection.get(), name, kObject, kInterface, method, g_variant_builder_end(&arguments),
            G_VARIANT_TYPE("(is)"), G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
        if (reply == nullptr)
            fail("call", error->message);
        int result = -1;
        g_variant_get(reply, "(i&s)", &result, nullptr);
        if (result != 0)
            fail("call", "the answer is not 0");
        g_variant_unref(reply);
    });
    return 0;
}

std::size_t keepBody(const char* data, std::size_t size, std::size_t count, void* body)
{
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
}

/// One request on the multi handle: an easy handle of its own, as the daemon has it.
void fetchOnce(CURLM* multi, const char* url, const char* caFile)
{
    std::string body;
    CURL* const easy = curl_easy_init();
    curl_easy_setopt(easy, CURLOPT_URL, url);
    curl_easy_setopt(easy, CURLOPT_CAINFO, caFile);
    curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, keepBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
    curl_multi_add_handle(multi, easy);
    int running = 1;
    while (curl_multi_perform(multi, &running) == CURLM_OK && running > 0)
        curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    int left = 0;
    const CURLMsg* const message = curl_multi_info_read(multi, &left);
    if (message == nullptr || message->data.result != CURLE_OK)
        fail("fetch", message == nullptr ? "no result" : curl_easy_strerror(message->data.result));
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    if (status != 200 || body.empty())
        fail("fetch", "the answer is not the server's");
    curl_multi_remove_handle(multi, easy);
    curl_easy_cleanup(easy);
}

int fetch(const char* url, const char* caFile, int count)
{
    curl_global_init(CURL_GLOBAL_DEFAULT);
    CURLM* const multi = curl_multi_init();
    measure(count, [&] { fetchOnce(multi, url, caFile); });
    curl_multi_cleanup(multi);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string_view mode = argc > 1 ? argv[1] : "";
    if (mode == "floor" && argc == 4)
        return serveFloor(argv[2], argv[3]);
    if (mode == "call" && argc >= 5)
        return callService(argv[2], std::atoi(argv[3]), argv[4], argv + 5);
    if (mode == "fetch" && argc == 5)
        return fetch(argv[2], argv[3], std::atoi(argv[4]));
    std::fprintf(stderr, "usage: see the head of bench_probe.cpp\n");
    return 2;
}
