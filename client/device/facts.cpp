// facts.cpp - data about the service from the bus, the service manager and the journal.
#include "facts.h"

#include "base/bus.h"
#include "base/process.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>

namespace client {

namespace {

constexpr const char* kManager = "org.freedesktop.systemd1";
constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
constexpr const char* kUnit = "billing-service.service";
// Logged as an error for every request, but not a failure.
constexpr const char* kNoComplaint = "Setup SSL options";

/// The properties of one interface of the systemd unit.
class Properties {
public:
    Properties(GDBusConnection* connection, const char* path, const char* interface, int timeout)
        : m_reply(g_dbus_connection_call_sync(
              connection, kManager, path, "org.freedesktop.DBus.Properties", "GetAll",
              g_variant_new("(s)", interface), G_VARIANT_TYPE("(a{sv})"), G_DBUS_CALL_FLAGS_NONE,
              timeout, nullptr, nullptr))
    {
        if (m_reply != nullptr) {
            m_values.reset(g_variant_get_child_value(m_reply.get(), 0));
        }
    }

    /// @return null when there is no property of this name and type
    GPtr<GVariant> get(const char* name, const char* type) const
    {
        return GPtr<GVariant>(m_values == nullptr ? nullptr
                                                  : g_variant_lookup_value(m_values.get(), name,
                                                                           G_VARIANT_TYPE(type)));
    }
    std::string text(const char* name) const
    {
        const GPtr<GVariant> value = get(name, "s");
        return value == nullptr ? "" : g_variant_get_string(value.get(), nullptr);
    }
    int number(const char* name) const
    {
        const GPtr<GVariant> value = get(name, "i");
        return value == nullptr ? 0 : g_variant_get_int32(value.get());
    }
    unsigned count(const char* name) const
    {
        const GPtr<GVariant> value = get(name, "u");
        return value == nullptr ? 0 : g_variant_get_uint32(value.get());
    }
    std::vector<std::string> texts(const char* name) const
    {
        std::vector<std::string> result;
        const GPtr<GVariant> value = get(name, "as");
        for (gsize i = 0; value != nullptr && i < g_variant_n_children(value.get()); ++i) {
            const GPtr<GVariant> child(g_variant_get_child_value(value.get(), i));
            result.emplace_back(g_variant_get_string(child.get(), nullptr));
        }
        return result;
    }

private:
    GPtr<GVariant> m_reply;
    GPtr<GVariant> m_values;
};

/// Adds the "NAME=value" lines of an EnvironmentFile=.
/// @param path without the "-" that may stand before it
void addFile(const std::string& path, std::vector<std::string>& environment)
{
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const std::size_t equals = line.find('=');
        if (line.empty() || line[0] == '#' || line[0] == ';' || equals == std::string::npos) {
            continue;
        }
        std::string value = line.substr(equals + 1);
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
            value.back() == value.front()) {
            value = value.substr(1, value.size() - 2);
        }
        environment.push_back(line.substr(0, equals + 1) + value);
    }
}

void readEnvironment(const Properties& properties, Unit& unit)
{
    unit.environment = properties.texts("Environment");
    const GPtr<GVariant> files = properties.get("EnvironmentFiles", "a(sb)");
    for (gsize i = 0; files != nullptr && i < g_variant_n_children(files.get()); ++i) {
        const char* path = nullptr;
        g_variant_get_child(files.get(), i, "(&sb)", &path, nullptr);
        addFile(path, unit.environment);
    }
}

void readProgram(const Properties& properties, Unit& unit)
{
    const GPtr<GVariant> commands = properties.get("ExecStart", "a(sasbttttuii)");
    if (commands != nullptr && g_variant_n_children(commands.get()) > 0) {
        const GPtr<GVariant> first(g_variant_get_child_value(commands.get(), 0));
        const GPtr<GVariant> path(g_variant_get_child_value(first.get(), 0));
        unit.program = g_variant_get_string(path.get(), nullptr);
    }
}

std::optional<Unit> unitOf(GDBusConnection* connection, int timeout)
{
    // NO_AUTO_START: a missing systemd must not be started for this question.
    const GPtr<GVariant> reply(g_dbus_connection_call_sync(
        connection, kManager, kManagerPath, "org.freedesktop.systemd1.Manager", "LoadUnit",
        g_variant_new("(s)", kUnit), G_VARIANT_TYPE("(o)"), G_DBUS_CALL_FLAGS_NO_AUTO_START,
        timeout, nullptr, nullptr));
    if (reply == nullptr) {
        return std::nullopt;
    }
    const char* path = nullptr;
    g_variant_get(reply.get(), "(&o)", &path);
    const Properties state(connection, path, "org.freedesktop.systemd1.Unit", timeout);
    const Properties service(connection, path, "org.freedesktop.systemd1.Service", timeout);
    Unit unit;
    unit.load = state.text("LoadState");
    unit.active = state.text("ActiveState");
    unit.sub = state.text("SubState");
    unit.result = service.text("Result");
    unit.code = service.number("ExecMainCode");
    unit.status = service.number("ExecMainStatus");
    unit.restarts = service.count("NRestarts");
    unit.user = service.text("User");
    unit.group = service.text("Group");
    unit.groups = service.texts("SupplementaryGroups");
    readProgram(service, unit);
    readEnvironment(service, unit);
    return unit;
}

void readJournal(std::vector<std::string> arguments,
                 const std::function<void(const std::string&)>& take)
{
    const char* const path = g_getenv("PATH");
    arguments.insert(arguments.begin(), {"journalctl", "--quiet", "--no-pager"});
    forEachLine(arguments,
                {std::string("PATH=") + (path != nullptr ? path : "/usr/bin:/bin"),
                 "SYSTEMD_COLORS=0", "LC_ALL=C.UTF-8"},
                take);
}

template <typename Values>
Json::Value list(const Values& values)
{
    Json::Value result(Json::arrayValue);
    for (const auto& value : values) {
        result.append(value);
    }
    return result;
}

std::vector<std::string> textsOf(const Json::Value& values)
{
    std::vector<std::string> result;
    for (const Json::Value& value : values) {
        result.push_back(value.asString());
    }
    return result;
}

Json::Value packed(const Process& process)
{
    Json::Value value;
    value["pid"] = process.pid;
    value["uid"] = process.uid;
    value["gid"] = process.gid;
    value["groups"] = list(process.groups);
    value["program"] = process.program;
    value["version"] = process.version;
    value["environment"] = list(process.environment);
    value["environmentKnown"] = process.environmentKnown;
    value["started"] = static_cast<Json::Int64>(std::llround(process.started * 1000));
    return value;
}

Json::Value packed(const Unit& unit)
{
    Json::Value value;
    value["load"] = unit.load;
    value["active"] = unit.active;
    value["sub"] = unit.sub;
    value["result"] = unit.result;
    value["code"] = unit.code;
    value["status"] = unit.status;
    value["restarts"] = unit.restarts;
    value["program"] = unit.program;
    value["user"] = unit.user;
    value["group"] = unit.group;
    value["groups"] = list(unit.groups);
    value["environment"] = list(unit.environment);
    return value;
}

Process processFrom(const Json::Value& value)
{
    Process process;
    process.pid = value["pid"].asUInt();
    process.uid = value["uid"].asUInt();
    process.gid = value["gid"].asUInt();
    for (const Json::Value& group : value["groups"]) {
        process.groups.push_back(group.asUInt());
    }
    process.program = value["program"].asString();
    process.version = value["version"].asString();
    process.environment = textsOf(value["environment"]);
    process.environmentKnown = value["environmentKnown"].asBool();
    process.started = static_cast<double>(value["started"].asInt64()) / 1000;
    return process;
}

Unit unitFrom(const Json::Value& value)
{
    Unit unit;
    unit.load = value["load"].asString();
    unit.active = value["active"].asString();
    unit.sub = value["sub"].asString();
    unit.result = value["result"].asString();
    unit.code = value["code"].asInt();
    unit.status = value["status"].asInt();
    unit.restarts = value["restarts"].asUInt();
    unit.program = value["program"].asString();
    unit.user = value["user"].asString();
    unit.group = value["group"].asString();
    unit.groups = textsOf(value["groups"]);
    unit.environment = textsOf(value["environment"]);
    return unit;
}

/// Keeps a line of the service about its callers, without its prefix. A line that only names a caller's user is skipped.
void noteCaller(Record& record, const std::string& line)
{
    if (line.find(" is of user ") != std::string::npos) {
        return;
    }
    for (const char* const start : {"caller :", "the bus does not tell what its clients",
                                    "neither the bus nor its clients tell"}) {
        const std::size_t at = line.find(start);
        if (at != std::string::npos) {
            record.callers.push_back(line.substr(at));
            return;
        }
    }
}

}  // namespace

Facts factsOf(const std::string& bus, double timeout)
{
    Facts facts;
    try {
        const Bus connection(bus, timeout);
        facts.unit = unitOf(connection.connection(), static_cast<int>(std::lround(timeout * 1000)));
        const std::optional<Owner> owner = connection.owner();
        if (owner && owner->pid) {
            facts.process = processOf(*owner->pid);
        }
    } catch (const Unreachable& error) {
        facts.noBus = std::string(error.what()) + "; " + error.cure();
    }
    return facts;
}

std::vector<std::string> journalTail(int lines)
{
    std::vector<std::string> tail;
    readJournal(
        {"--output=cat", "--priority=warning", "--boot", "--lines=" + std::to_string(2 * lines),
         std::string("_SYSTEMD_UNIT=") + kUnit, "+", std::string("UNIT=") + kUnit},
        [&tail](const std::string& line) {
            if (line.find(kNoComplaint) == std::string::npos) {
                tail.push_back(line);
            }
        });
    const auto surplus = static_cast<std::ptrdiff_t>(tail.size()) - lines;
    tail.erase(tail.begin(), tail.begin() + std::max<std::ptrdiff_t>(surplus, 0));
    return tail;
}

Record recordOf(unsigned pid)
{
    Record record;
    record.connections = connectionsOf(pid);
    const std::string process = "_PID=" + std::to_string(pid);
    readJournal({"--output=cat", "--lines=1", process},
                [&record](const std::string&) { record.journalKnown = true; });
    for (const auto& [result, count] :
         {std::pair{"0", &record.answered}, std::pair{"-1", &record.lost},
          std::pair{"1160003", &record.refused}}) {
        readJournal({"--output=cat", process, std::string("BILLING_RESULT=") + result},
                    [number = count](const std::string&) { ++*number; });
    }
    readJournal({"--output=short-iso", "--priority=warning", process},
                [&record](const std::string& line) {
                    const bool failed = line.find("ErrorCode = ") != std::string::npos ||
                                        line.find(", HTTP ") != std::string::npos;
                    record.failure = failed ? line : record.failure;
                    noteCaller(record, line);
                });
    return record;
}

Json::Value packed(const Record& record)
{
    Json::Value value;
    if (record.connections) {
        value["connections"] = *record.connections;
    }
    value["journalKnown"] = record.journalKnown;
    value["answered"] = record.answered;
    value["lost"] = record.lost;
    value["refused"] = record.refused;
    value["failure"] = record.failure;
    value["callers"] = list(record.callers);
    return value;
}

Record recordFrom(const Json::Value& value)
{
    Record record;
    if (value.isMember("connections")) {
        record.connections = value["connections"].asInt();
    }
    record.journalKnown = value["journalKnown"].asBool();
    record.answered = value["answered"].asUInt();
    record.lost = value["lost"].asUInt();
    record.refused = value["refused"].asUInt();
    record.failure = value["failure"].asString();
    record.callers = textsOf(value["callers"]);
    return record;
}

Json::Value packed(const Facts& facts)
{
    Json::Value value;
    value["noBus"] = facts.noBus;
    if (facts.process) {
        value["process"] = packed(*facts.process);
    }
    if (facts.unit) {
        value["unit"] = packed(*facts.unit);
    }
    return value;
}

Facts unpacked(const Json::Value& value)
{
    Facts facts;
    facts.noBus = value["noBus"].asString();
    if (value.isMember("process")) {
        facts.process = processFrom(value["process"]);
    }
    if (value.isMember("unit")) {
        facts.unit = unitFrom(value["unit"]);
    }
    return facts;
}

}  // namespace client
