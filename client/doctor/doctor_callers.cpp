// doctor_callers.cpp - checks for callers that the service holds back or refuses, and for the bus rules that it needs.
#include "base/bus.h"
#include "doctor.h"

#include <map>

namespace client {

namespace {

constexpr const char* kCheck = "callers";

/// Lines of the log about callers whose trouble is not over.
struct Complaints {
    std::map<std::string, std::string> held;     ///< line by the caller's bus name
    std::map<std::string, std::string> refused;  ///< line by the caller's bus name
    std::string policy;                          ///< line about a missing rule of the bus policy
    std::string last;                            ///< last line about trouble that is over
};

bool startsWith(const std::string& text, const char* start)
{
    return text.rfind(start, 0) == 0;
}

void note(Complaints& complaints, const std::string& line)
{
    const std::size_t name = line.find(" :") + 1;
    const std::string caller = line.substr(name, line.find(' ', name) - name);
    const std::size_t end = line.find(") ");
    const std::string said = end == std::string::npos ? "" : line.substr(end + 2);
    if (!startsWith(line, "caller :")) {
        // A bus without statistics needs no rule for them.
        const bool missing =
            startsWith(line, "neither") || line.find("AccessDenied") != std::string::npos;
        complaints.policy = missing ? line : "";
    } else if (startsWith(said, "is held back")) {
        complaints.held[caller] = line;
    } else if (startsWith(said, "is refused")) {
        complaints.refused[caller] = line;
    } else {
        (startsWith(said, "is no longer refused") ? complaints.refused : complaints.held)
            .erase(caller);
        complaints.last = line;
    }
}

/// @return whether the bus's policy lets the service's user, which is this process's, ask for unread bytes
bool mayAskTheBus(const Bus& bus)
{
    GError* error = nullptr;
    const GPtr<GVariant> reply(g_dbus_connection_call_sync(
        bus.connection(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
        "org.freedesktop.DBus.Debug.Stats", "GetConnectionStats",
        g_variant_new("(s)", g_dbus_connection_get_unique_name(bus.connection())), nullptr,
        G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, &error));
    const GPtr<GError> holder(error);
    return !g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED);
}

Finding policyLacksRules(const std::string& cause)
{
    return warning(kCheck, "no-rules", cause,
                   std::string("install ") + BILLING_POLICY +
                       " of this version, then: busctl call org.freedesktop.DBus "
                       "/org/freedesktop/DBus org.freedesktop.DBus ReloadConfig, and restart the "
                       "service");
}

/// @return one of the lines, with the number of the others
std::string oneOf(const std::map<std::string, std::string>& lines)
{
    const std::size_t more = lines.size() - 1;
    return lines.begin()->second + (more > 0 ? "; and " + std::to_string(more) + " more" : "");
}

}  // namespace

Finding checkCallers(const Patient& patient, const Bus& bus)
{
    if (!patient.facts.process) {
        return notChecked(kCheck, "the service does not run");
    }
    Complaints complaints;
    const Record record = patient.eyes.record(patient.facts.process->pid);
    for (const std::string& line : record.callers) {
        note(complaints, line);
    }
    if (!complaints.policy.empty()) {
        return policyLacksRules("the journal: " + complaints.policy);
    }
    if (patient.asService && !mayAskTheBus(bus)) {
        return policyLacksRules(
            "the bus's policy does not let the service ask what its callers have not read");
    }
    if (!complaints.held.empty()) {
        return warning(kCheck, "held-back", "the journal: " + oneOf(complaints.held),
                       "busctl status " + complaints.held.begin()->first +
                           " names its process, which hangs, is stopped or asks without reading; "
                           "no other app waits for it");
    }
    if (!complaints.refused.empty()) {
        return warning(kCheck, "refused", "the journal: " + oneOf(complaints.refused),
                       "busctl status " + complaints.refused.begin()->first +
                           " names its process; shorter arguments, or fewer calls at a time");
    }
    if (!record.journalKnown) {
        const std::string none = "there is no journal of the service that this user may read";
        return patient.asService ? good(kCheck, "the bus lets the service ask; " + none)
                                 : notChecked(kCheck, none);
    }
    return good(kCheck, "no caller is held back or refused" +
                            (complaints.last.empty() ? "" : "; lately: " + complaints.last));
}

}  // namespace client
