// purchases.cpp - a sample app that delivers what its user has bought, and prints a line for each
// purchase.
//
// usage: purchases APP NOTES
//
// The app asks the billing service for the user's purchases, and applies and confirms each that is
// not confirmed yet. NOTES is the app's own file, made if it is missing. The service returns only
// the newest 20 purchases of the account, so the file keeps each purchase until it is confirmed.
// The service is called on the system bus, or on the bus named by DBUS_SYSTEM_BUS_ADDRESS.
#include <gio/gio.h>
#include <json/json.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr const char* SERVICE = "org.plevo.billingservice";
constexpr const char* OBJECT = "/org/plevo/billingservice";
// The device's setting chooses the server; this argument is not used.
constexpr const char* SERVER_TYPE = "";
// The service ends a transfer after 90 seconds.
constexpr int TIMEOUT_MS = 100000;

constexpr int SUCCESS = 0;
constexpr int REFUSED = 1160003;

struct Unref {
    void operator()(GDBusConnection* bus) const { g_object_unref(bus); }
    void operator()(GVariant* value) const { g_variant_unref(value); }
    void operator()(GError* error) const { g_error_free(error); }
};
template <typename T>
using Pointer = std::unique_ptr<T, Unref>;

/// The store cannot be reached, or has refused. No purchase is lost: the app asks again later.
struct StoreError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The service cannot be called.
struct BusError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

template <typename T>
Pointer<T> checked(T* result, GError* error)
{
    const Pointer<GError> owner(error);
    if (result == nullptr)
        throw BusError(error->message);
    return Pointer<T>(result);
}

/// Calls a method of the service and reads the store's answer.
Json::Value ask(GDBusConnection* bus, const char* method, const std::vector<std::string>& arguments)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
    for (const std::string& argument : arguments)
        g_variant_builder_add(&builder, "s", argument.c_str());
    GError* error = nullptr;
    GVariant* const answered = g_dbus_connection_call_sync(
        bus, SERVICE, OBJECT, SERVICE, method, g_variant_builder_end(&builder),
        G_VARIANT_TYPE("(is)"), G_DBUS_CALL_FLAGS_NONE, TIMEOUT_MS, nullptr, &error);
    const Pointer<GVariant> reply = checked(answered, error);
    gint32 result = 0;
    const char* text = nullptr;
    g_variant_get(reply.get(), "(i&s)", &result, &text);
    if (result == REFUSED)  // no network, or the service is stopping
        throw StoreError(text);
    if (result != SUCCESS)
        throw StoreError("the connection to the store failed");
    Json::Value answer;
    std::string problems;
    const std::string body = text;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!reader->parse(body.data(), body.data() + body.size(), &answer, &problems) ||
        !answer.isObject()) {
        throw StoreError("the store's answer cannot be read");
    }
    // An HTTP error is a successful transfer for the service: only the body tells of it.
    if (answer["status"] != "ok")
        throw StoreError(answer.get("message", "the store refused").asString());
    return answer;
}

/// @return whether the purchase was delivered
bool deliverOne(GDBusConnection* bus, const std::string& app, const std::string& id,
                const std::string& product)
{
    std::cout << id << " " << product;
    try {
        ask(bus, "get_applied_time", {app, "", id, SERVER_TYPE});
        // An app unlocks here what was bought, and confirms only after that. If the answer of a
        // confirmation is lost, the app confirms again: the store keeps the first confirmation.
        ask(bus, "confirm_purchase", {app, "", id, SERVER_TYPE});
        std::cout << " delivered\n";
        return true;
    } catch (const StoreError& error) {
        std::cout << " later: " << error.what() << "\n";
        return false;
    }
}

/// @return the product of each invoice that is not confirmed yet, by the invoice's id
Json::Value readNotes(const std::string& file)
{
    Json::Value notes(Json::objectValue);
    std::ifstream in(file);
    if (in)
        in >> notes;
    return notes;
}

/// Replaces the file at once, so that a crash leaves the old notes or the new ones.
void writeNotes(const std::string& file, const Json::Value& notes)
{
    const std::string fresh = file + ".new";
    std::ofstream out(fresh);
    out << notes << std::flush;
    if (!out || std::rename(fresh.c_str(), file.c_str()) != 0)
        throw std::runtime_error(file + " cannot be written");
}

void noteHistory(GDBusConnection* bus, const std::string& app, Json::Value& notes)
{
    // The service uses no argument of this method: it returns the account's purchases of all apps.
    const Json::Value history =
        ask(bus, "get_purchase_history", {app, "", "", "", "", SERVER_TYPE});
    for (const Json::Value& invoice : history["invoices"]) {
        const std::string status = invoice["status"].asString();
        if (invoice["app"] != app)
            continue;
        if (status == "bought" || status == "applied")
            notes[invoice["id"].asString()] = invoice["product"];
        else
            notes.removeMember(invoice["id"].asString());
    }
}

bool deliver(GDBusConnection* bus, const std::string& app, const std::string& file)
{
    bool all = true;
    Json::Value notes = readNotes(file);
    noteHistory(bus, app, notes);
    writeNotes(file, notes);
    for (const std::string& id : notes.getMemberNames()) {
        if (deliverOne(bus, app, id, notes[id].asString())) {
            notes.removeMember(id);
            writeNotes(file, notes);
        } else {
            all = false;
        }
    }
    return all;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: purchases APP NOTES\n";
        return 2;
    }
    try {
        GError* error = nullptr;
        GDBusConnection* const found = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
        const Pointer<GDBusConnection> bus = checked(found, error);
        return deliver(bus.get(), argv[1], argv[2]) ? 0 : 1;
    } catch (const StoreError& error) {
        std::cout << "later: " << error.what() << "\n";
    } catch (const BusError& error) {
        std::cerr << "the billing service cannot be reached: " << error.what() << "\n";
    } catch (const std::exception& error) {
        std::cerr << error.what() << "\n";
    }
    return 1;
}
