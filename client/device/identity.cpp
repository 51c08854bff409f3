// identity.cpp - finds out the service's user and groups, and changes this process to them.
#include "identity.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>

namespace client {

namespace {

constexpr const char* kCheck = "identity";
/// Variables kept from the caller's environment: the bus address, and settings of the terminal and of sanitizers.
constexpr const char* kKept[] = {
    "DBUS_SYSTEM_BUS_ADDRESS", "NO_COLOR", "TERM", "ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS"};

std::optional<gid_t> groupOf(const std::string& name)
{
    const group* const entry = getgrnam(name.c_str());
    return entry != nullptr ? std::optional<gid_t>(entry->gr_gid) : std::nullopt;
}

void add(Identity& identity, gid_t group)
{
    if (std::find(identity.groups.begin(), identity.groups.end(), group) == identity.groups.end()) {
        identity.groups.push_back(group);
    }
}

/// Sets user and groups from the account database.
void fillFromAccount(Identity& identity, const std::string& user)
{
    const passwd* const entry = getpwnam(user.c_str());
    if (entry == nullptr) {
        identity.cause = "there is no user " + user;
        return;
    }
    identity.known = true;
    identity.uid = entry->pw_uid;
    identity.gid = entry->pw_gid;
    gid_t found[64];
    int count = 64;
    if (getgrouplist(user.c_str(), entry->pw_gid, found, &count) >= 0) {
        identity.groups.assign(found, found + count);
    }
}

void fillFromProcess(Identity& identity, const Process& process)
{
    identity.known = true;
    identity.source = "process " + std::to_string(process.pid);
    identity.pid = process.pid;
    identity.uid = process.uid;
    identity.gid = process.gid;
    identity.groups.assign(process.groups.begin(), process.groups.end());
    identity.environment = process.environment;
    identity.environmentKnown = process.environmentKnown;
}

void fillFromUnit(Identity& identity, const Unit& unit)
{
    identity.source = "the unit";
    fillFromAccount(identity, unit.user.empty() ? "root" : unit.user);
    if (const auto group = groupOf(unit.group)) {
        identity.gid = *group;
    }
    for (const std::string& name : unit.groups) {
        if (const auto group = groupOf(name)) {
            add(identity, *group);
        }
    }
    identity.environment = unit.environment;
    identity.environmentKnown = true;
}

/// Joins a namespace of the service's process, unless this process is in it.
void join(unsigned pid, const char* kind, int type)
{
    const std::string own = std::string("/proc/self/ns/") + kind;
    const std::string other = "/proc/" + std::to_string(pid) + "/ns/" + kind;
    struct stat here {};
    struct stat there {};
    if (stat(own.c_str(), &here) != 0 || stat(other.c_str(), &there) != 0 ||
        here.st_ino == there.st_ino) {
        return;
    }
    const int descriptor = open(other.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor >= 0) {
        setns(descriptor, type);
        close(descriptor);
    }
}

void takeEnvironment(const std::vector<std::string>& environment)
{
    std::map<std::string, std::string> kept;
    for (const char* const name : kKept) {
        if (const char* const value = getenv(name)) {
            kept[name] = value;
        }
    }
    clearenv();
    for (const std::string& variable : environment) {
        const std::size_t equals = variable.find('=');
        if (equals != std::string::npos && equals > 0) {
            setenv(variable.substr(0, equals).c_str(), variable.c_str() + equals + 1, 1);
        }
    }
    for (const auto& [name, value] : kept) {
        setenv(name.c_str(), value.c_str(), 1);
    }
}

bool takeUser(const Identity& identity)
{
    if (identity.uid == geteuid()) {
        return true;
    }
    return setgroups(identity.groups.size(), identity.groups.data()) == 0 &&
           setresgid(identity.gid, identity.gid, identity.gid) == 0 &&
           setresuid(identity.uid, identity.uid, identity.uid) == 0;
}

}  // namespace

std::string userName(uid_t uid)
{
    const passwd* const entry = getpwuid(uid);
    return entry != nullptr ? entry->pw_name : std::to_string(uid);
}

std::string groupName(gid_t gid)
{
    const group* const entry = getgrgid(gid);
    return entry != nullptr ? entry->gr_name : std::to_string(gid);
}

std::string ownGroups()
{
    gid_t groups[64];
    const int count = getgroups(64, groups);
    std::string names = groupName(getegid());
    for (int i = 0; i < count; ++i) {
        names += groups[i] != getegid() ? " " + groupName(groups[i]) : "";
    }
    return names;
}

Identity identityOf(const Facts& facts)
{
    Identity identity;
    if (facts.process) {
        fillFromProcess(identity, *facts.process);
    } else if (facts.unit && facts.unit->load == "loaded") {
        fillFromUnit(identity, *facts.unit);
    } else {
        identity.source = "the account";
        fillFromAccount(identity, BILLING_USER);
    }
    // The service's own user has no right to call the service; the group of the callers has.
    if (const auto callers = groupOf(BILLING_CALLERS)) {
        add(identity, *callers);
    }
    identity.user = userName(identity.uid);
    identity.group = groupName(identity.gid);
    return identity;
}

bool isService(const Identity& identity)
{
    return identity.known && identity.uid == geteuid();
}

Finding become(const Identity& identity)
{
    if (!identity.known) {
        const std::string root = identity.cause + ": looked as root";
        return identity.source == "the unit"
                   ? failed(kCheck, "no-user", identity.cause + ", which the unit names",
                            "make it with systemd-sysusers, or take User= out of the drop-in")
                   : notChecked(kCheck, root);
    }
    if (identity.pid != 0) {
        join(identity.pid, "net", CLONE_NEWNET);
        join(identity.pid, "mnt", CLONE_NEWNS);
    }
    if (identity.environmentKnown) {
        takeEnvironment(identity.environment);
    }
    if (!takeUser(identity)) {
        return warning(kCheck, "kept",
                       "this process may not become " + identity.user + ": " + std::strerror(errno),
                       "start it as root with all of root's rights");
    }
    return good(kCheck, "looked as " + identity.user + ", with user, groups" +
                            (identity.environmentKnown ? " and environment of " : " of ") +
                            identity.source);
}

}  // namespace client
