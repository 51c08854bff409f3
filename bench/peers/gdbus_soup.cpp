// gdbus_soup.cpp - the service as a programmer could write it in a day with GDBus and libsoup 3: everything on one main loop,
// nothing blocks.
//
// Only measured beside the daemon, never installed: no log, no settings, no checks of its input. Its configuration is its
// environment: see bench/measure/services.py.
#include <glib-unix.h>
#include <gnutls/pkcs11.h>
#include <json-glib/json-glib.h>
#include <libsoup/soup.h>

#include <string>

namespace {

constexpr const char* kObject = "/org/plevo/billingservice";
constexpr int kConnections = 100;
constexpr int kTimeoutSeconds = 90;

constexpr const char* kXml = R"(<node><interface name="org.plevo.billingservice">
  <method name="get_product_list">
    <arg type="s" name="appid" direction="in"/>
    <arg type="s" name="serverType" direction="in"/>
    <arg type="s" name="CheckValue" direction="in"/>
    <arg type="i" name="resp_result" direction="out"/>
    <arg type="s" name="resp_info" direction="out"/>
  </method>
  <method name="get_purchase_history">
    <arg type="s" name="appid" direction="in"/>
    <arg type="s" name="customId" direction="in"/>
    <arg type="s" name="ItemType" direction="in"/>
    <arg type="s" name="PageNumber" direction="in"/>
    <arg type="s" name="CheckValue" direction="in"/>
    <arg type="s" name="serverType" direction="in"/>
    <arg type="i" name="resp_result" direction="out"/>
    <arg type="s" name="resp_info" direction="out"/>
  </method>
  <method name="get_applied_time">
    <arg type="s" name="appid" direction="in"/>
    <arg type="s" name="customId" direction="in"/>
    <arg type="s" name="invoiceid" direction="in"/>
    <arg type="s" name="serverType" direction="in"/>
    <arg type="i" name="resp_result" direction="out"/>
    <arg type="s" name="resp_info" direction="out"/>
  </method>
  <method name="confirm_purchase">
    <arg type="s" name="appid" direction="in"/>
    <arg type="s" name="customId" direction="in"/>
    <arg type="s" name="invoiceid" direction="in"/>
    <arg type="s" name="serverType" direction="in"/>
    <arg type="i" name="resp_result" direction="out"/>
    <arg type="s" name="resp_info" direction="out"/>
  </method>
  <method name="check_server_availability">
    <arg type="i" name="resp_result" direction="out"/>
    <arg type="s" name="resp_info" direction="out"/>
  </method>
</interface></node>)";

std::string env(const char* name)
{
    const char* const value = g_getenv(name);
    return value != nullptr ? value : "";
}

struct Service {
    std::string base = "https://" + env("BILLING_HOST");
    std::string duid = env("BILLING_DUID"), token = env("BILLING_TOKEN");
    std::string guid = env("BILLING_GUID"), uid = env("BILLING_UID");
    std::string country = env("BILLING_COUNTRY"), language = env("BILLING_LANGUAGE");
    SoupSession* session = nullptr;
    GTlsCertificate* certificate = nullptr;
};

struct Request {
    std::string path;
    std::string body;  ///< not empty: a POST
    bool history = false;
};

void reply(GDBusMethodInvocation* invocation, int result, const char* text)
{
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(is)", result, text));
}

void answered(GObject* source, GAsyncResult* outcome, void* data)
{
    auto* const invocation = static_cast<GDBusMethodInvocation*>(data);
    g_autoptr(GError) error = nullptr;
    g_autoptr(GBytes) bytes =
        soup_session_send_and_read_finish(SOUP_SESSION(source), outcome, &error);
    if (bytes == nullptr) {
        g_printerr("%s: %s\n", g_dbus_method_invocation_get_method_name(invocation),
                   error->message);
        reply(invocation, -1, "");
        return;
    }
    gsize size = 0;
    const auto* const text = static_cast<const char*>(g_bytes_get_data(bytes, &size));
    // D-Bus accepts valid UTF-8 only.
    g_autofree char* body =
        g_utf8_make_valid(text != nullptr ? text : "", static_cast<gssize>(size));
    reply(invocation, 0, body);
}

std::string purchase(const Service& s, GVariant* arguments)
{
    const char *appid, *custom, *invoice;
    g_variant_get(arguments, "(&s&s&s&s)", &appid, &custom, &invoice, nullptr);
    const std::pair<const char*, const char*> members[] = {{"storeId", "1"},
                                                           {"storeProdCode", "1"},
                                                           {"appId", appid},
                                                           {"invoiceId", invoice},
                                                           {"customId", custom},
                                                           {"languageCode", s.language.c_str()},
                                                           {"countryCode", s.country.c_str()},
                                                           {"GUID", s.guid.c_str()},
                                                           {"UID", s.uid.c_str()}};
    g_autoptr(JsonBuilder) builder = json_builder_new();
    json_builder_begin_object(builder);
    for (const auto& [name, value] : members) {
        json_builder_set_member_name(builder, name);
        json_builder_add_string_value(builder, value);
    }
    json_builder_end_object(builder);
    g_autoptr(JsonNode) root = json_builder_get_root(builder);
    g_autofree char* text = json_to_string(root, FALSE);
    return text;
}

std::string products(const Service& s, GVariant* arguments)
{
    const char *appid, *check;
    g_variant_get(arguments, "(&s&s&s)", &appid, nullptr, &check);
    return std::string("/billing/product/v2/products?appid=") + appid + "&guid=" + s.guid +
           "&uid=" + s.uid + "&storeid=1&storeprodcode=1&countrycode=" + s.country +
           "&languagecode=" + s.language + "&checkvalue=" + check;
}

Request requestOf(const Service& s, const std::string& method, GVariant* arguments)
{
    if (method == "get_product_list")
        return {products(s, arguments), {}};
    if (method == "get_applied_time")
        return {"/billing/payment/v2/apply", purchase(s, arguments)};
    if (method == "confirm_purchase")
        return {"/billing/payment/v2/confirm", purchase(s, arguments)};
    if (method == "get_purchase_history")
        return {"/billing/service/v2/user/invoices?customid=" + s.uid + "&countrycode=" +
                    s.country + "&languagecode=" + s.language + "&GUID=" + s.guid +
                    "&UID=" + s.uid + "&storeid=1&storeprodcode=1&pagesize=20&startidx=1&reqtype=2",
                {},
                true};
    return {"/billing/service/v2/country?storeid=1&storeprodcode=1&guid=" + s.uid +
                "&uid=" + s.uid + "&lang=" + s.language + "&countrycode=" + s.country,
            {}};
}

void setHeaders(const Service& s, SoupMessage* message, bool history)
{
    SoupMessageHeaders* const headers = soup_message_get_request_headers(message);
    soup_message_headers_replace(headers, "Content-Type", "application/json; charset=utf-8");
    soup_message_headers_replace(headers, "Accept", "application/json");
    soup_message_headers_replace(headers, "DUID", s.duid.c_str());
    soup_message_headers_replace(headers, "Atoken", s.token.c_str());
    if (history) {
        soup_message_headers_replace(headers, "TvYear", "15");
        soup_message_headers_replace(headers, "TvVersion", "1.2");
    }
}

void called(GDBusConnection*, const char*, const char*, const char*, const char* method,
            GVariant* arguments, GDBusMethodInvocation* invocation, void* data)
{
    const auto& s = *static_cast<const Service*>(data);
    const Request request = requestOf(s, method, arguments);
    g_autoptr(SoupMessage) message =
        soup_message_new(request.body.empty() ? "GET" : "POST", (s.base + request.path).c_str());
    if (message == nullptr) {
        reply(invocation, -1, "");
        return;
    }
    setHeaders(s, message, request.history);
    if (!request.body.empty()) {
        g_autoptr(GBytes) bytes = g_bytes_new(request.body.data(), request.body.size());
        soup_message_set_request_body_from_bytes(message, "application/json; charset=utf-8", bytes);
    }
    soup_message_set_tls_client_certificate(message, s.certificate);
    soup_session_send_and_read_async(s.session, message, G_PRIORITY_DEFAULT, nullptr, answered,
                                     invocation);
}

/// @return the device's certificate with its key in the token; null, with `error` set, when there is none
GTlsCertificate* load(GError** error)
{
    gnutls_pkcs11_init(GNUTLS_PKCS11_FLAG_MANUAL, nullptr);
    if (gnutls_pkcs11_add_provider(env("BILLING_PKCS11_MODULE").c_str(), nullptr) != 0) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "no PKCS#11 module");
        return nullptr;
    }
    g_autofree char* pem = nullptr;
    if (!g_file_get_contents(env("BILLING_CERT").c_str(), &pem, nullptr, error))
        return nullptr;
    GTlsBackend* const backend = g_tls_backend_get_default();
    return G_TLS_CERTIFICATE(g_initable_new(g_tls_backend_get_certificate_type(backend), nullptr,
                                            error, "certificate-pem", pem, "private-key-pkcs11-uri",
                                            env("BILLING_KEY").c_str(), nullptr));
}

gboolean quit(void* loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

void lost(GDBusConnection*, const char* name, void*)
{
    g_error("no name %s", name);
}

}  // namespace

int main()
{
    g_autoptr(GError) error = nullptr;
    Service service;
    service.certificate = load(&error);
    if (service.certificate == nullptr)
        g_error("certificate: %s", error->message);
    g_autoptr(GTlsDatabase) authorities =
        g_tls_file_database_new(env("BILLING_CA").c_str(), &error);
    if (authorities == nullptr)
        g_error("authorities: %s", error->message);
    service.session = soup_session_new_with_options("max-conns", kConnections, "max-conns-per-host",
                                                    kConnections, "timeout", kTimeoutSeconds,
                                                    "tls-database", authorities, nullptr);

    GDBusConnection* const bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (bus == nullptr)
        g_error("bus: %s", error->message);
    GDBusNodeInfo* const node = g_dbus_node_info_new_for_xml(kXml, nullptr);
    const GDBusInterfaceVTable table{called, nullptr, nullptr, {}};
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    g_dbus_connection_register_object(bus, kObject, node->interfaces[0], &table, &service, nullptr,
                                      nullptr);
    g_bus_own_name_on_connection(bus, env("BILLING_NAME").c_str(), G_BUS_NAME_OWNER_FLAGS_NONE,
                                 nullptr, lost, nullptr, nullptr);
    g_unix_signal_add(SIGTERM, quit, loop);
    g_main_loop_run(loop);
    return 0;
}
