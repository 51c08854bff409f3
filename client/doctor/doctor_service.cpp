// doctor_service.cpp - checks the service through its manager and as a caller.
#include "base/bus.h"
#include "base/calls.h"
#include "base/process.h"
#include "device/certificate.h"
#include "doctor.h"
#include "linux/settings/settings.h"
#include "settings/platform_library.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace client {

namespace {

/// Seconds after which bus and service manager give up a start.
constexpr double kStartSeconds = 35;
/// An answer that takes a larger part of --timeout is a warning.
constexpr double kSlowPart = 0.5;
/// Seconds. The kernel's start time is exact to 10 ms, and the service reads the certificate a moment later.
constexpr double kStartDoubt = 0.5;
constexpr int kJournalLines = 3;
constexpr const char* kLook = "journalctl -u billing-service -n 50";

std::string describe(const Owner& owner, const Facts& facts)
{
    const bool seen = facts.process && !facts.process->program.empty();
    return (seen ? facts.process->program : "a program that cannot be seen from here") +
           (owner.pid ? " (process " + std::to_string(*owner.pid) : " (process not known") +
           ", user " + (owner.uid ? userName(*owner.uid) : "not known") + ")";
}

/// @return the text, followed by the last lines of the journal
std::string withJournal(const Patient& patient, const std::string& text)
{
    std::string result = text;
    for (const std::string& line : patient.eyes.journalTail(kJournalLines)) {
        result += "; the journal: " + line;
    }
    return result;
}

/// @return a shared library that the service's program lacks; empty when it lacks none or that is not known
std::string missingLibrary(const Facts& facts)
{
    const std::string program = facts.unit && !facts.unit->program.empty()
                                    ? facts.unit->program
                                    : std::string(BILLING_DAEMON);
    // Runs the dynamic loader only, no code of the program.
    std::istringstream lines(outputOf({program}, {"LD_TRACE_LOADED_OBJECTS=1"}));
    for (std::string line; std::getline(lines, line);) {
        const std::size_t arrow = line.find(" => not found");
        const std::size_t begin = line.find_first_not_of(" \t");
        if (arrow != std::string::npos && begin < arrow) {
            return line.substr(begin, arrow - begin);
        }
    }
    return "";
}

std::string endOf(const Unit& unit)
{
    if (unit.code == CLD_EXITED) {
        return "exit status " + std::to_string(unit.status);
    }
    return unit.code == CLD_KILLED || unit.code == CLD_DUMPED
               ? "signal " + std::to_string(unit.status)
               : unit.result;
}

Finding checkUnit(const Patient& patient)
{
    const char* const check = "unit";
    if (!patient.facts.unit) {
        return notChecked(check, "there is no systemd on this bus");
    }
    const Unit& unit = *patient.facts.unit;
    const std::string text = "billing-service.service is " + unit.active + " (" + unit.sub + ")";
    if (unit.load == "masked") {
        return failed(check, "masked", "billing-service.service is masked: it cannot be started",
                      "systemctl unmask billing-service");
    }
    if (unit.load != "loaded") {
        return failed(check, "not-installed", "billing-service.service is " + unit.load,
                      "install it, then: systemctl daemon-reload");
    }
    const bool restarting = unit.sub == "auto-restart" || unit.restarts > 5;
    if (unit.active == "failed" || restarting) {
        const std::string library = missingLibrary(patient.facts);
        const std::string cause =
            text + ", its last process ended with " + endOf(unit) +
            (unit.restarts > 0 ? ", " + std::to_string(unit.restarts) + " restarts" : "");
        if (!library.empty()) {
            return failed(check, "library", cause + ": the library " + library + " is missing",
                          "install the package that has " + library + ", or run ldconfig");
        }
        return failed(check, unit.active == "failed" ? "failed" : "restarting",
                      withJournal(patient, cause),
                      std::string("mend what the journal names (") + kLook +
                          "), then: systemctl reset-failed billing-service && systemctl start "
                          "billing-service");
    }
    return good(check, text);
}

/// @return whether the installation's bus policy exists
bool hasPolicy()
{
    return access(BILLING_POLICY, F_OK) == 0 ||
           access("/etc/dbus-1/system.d/org.plevo.billingservice.conf", F_OK) == 0;
}

/// @return the finding for a bus that lets no call through
Finding denied(const char* check, const std::string& cause)
{
    const std::string user = userName(geteuid());
    const std::string who = user + " (groups " + ownGroups() + ")";
    const std::string callers = " " + std::string(BILLING_CALLERS) + " ";
    if (!hasPolicy()) {
        return failed(
            check, "no-policy",
            std::string("the bus has no policy for the service: ") + BILLING_POLICY + " is missing",
            "install it, then: busctl call org.freedesktop.DBus /org/freedesktop/DBus "
            "org.freedesktop.DBus ReloadConfig");
    }
    if ((" " + ownGroups() + " ").find(callers) == std::string::npos) {
        return failed(
            check, "denied",
            "the bus lets only members of the group" + callers + "call, and " + who + " is none",
            "usermod -aG" + callers + user + ", then sign in anew; or run this as root");
    }
    return failed(check, "denied", cause + ", though " + who + " is in the group" + callers,
                  "reload the policy: busctl call org.freedesktop.DBus /org/freedesktop/DBus "
                  "org.freedesktop.DBus ReloadConfig");
}

Finding checkName(const Patient& patient, const Bus& bus)
{
    const char* const check = "name";
    const std::string name = kService;
    if (const auto owner = bus.owner()) {
        return good(check, name + " is owned by " + describe(*owner, patient.facts));
    }
    if (bus.startsService()) {
        return good(check, name + " has no owner now; the bus starts it for a call");
    }
    if (patient.facts.unit && patient.facts.unit->active == "active" && !hasPolicy()) {
        return denied(check, "");
    }
    return failed(check, "not-owned", "the name " + name + " has no owner",
                  "start the service (systemctl start billing-service) and look at its log");
}

Finding notStarted(const Patient& patient, const std::string& cause)
{
    const std::string library = missingLibrary(patient.facts);
    if (!library.empty()) {
        return failed(
            "ping", "library",
            "the service does not start: the library " + library + " is missing (" + cause + ")",
            "install the package that has " + library + ", or run ldconfig");
    }
    return failed("ping", "not-started",
                  withJournal(patient, "the service does not start: " + cause),
                  std::string("mend what its log names: ") + kLook);
}

/// Checks for an answer to a ping, which starts the service if it does not run.
Finding checkPing(const Patient& patient, const Bus& bus)
{
    const char* const check = "ping";
    const bool there = bus.owner().has_value();
    const double timeout =
        there ? patient.options.timeout : std::max(patient.options.timeout, kStartSeconds);
    const Ping ping = bus.ping(timeout);
    switch (ping.outcome) {
        case Ping::Answered: {
            char time[64];
            std::snprintf(time, sizeof time, "the service lives: it answered in %.1f ms",
                          ping.milliseconds);
            return good(check, time);
        }
        case Ping::Denied:
            return denied(check, ping.error);
        case Ping::Silent:
            if (patient.facts.process && patient.eyes.isStopped(patient.facts.process->pid)) {
                return failed(check, "stopped",
                              "the process of the service is stopped by a signal or a debugger",
                              "kill -CONT " + std::to_string(patient.facts.process->pid));
            }
            return failed(
                check, "hung", "the service has its name and did not answer a ping: it hangs",
                "systemctl restart billing-service; before that, gdb -p shows where it hangs");
        case Ping::Gone:
            break;
    }
    return there ? failed(check, "gone",
                          withJournal(patient, "the service left the bus: " + ping.error), kLook)
                 : notStarted(patient, ping.error);
}

/// @param before the end of the journal before the call
/// @return the HTTP status of 400 or more that the journal has for a transfer since then; 0 when it has none
long refusalSince(const Patient& patient, const std::vector<std::string>& before)
{
    const std::string mark = ", HTTP ";
    for (const std::string& line : patient.eyes.journalTail(kJournalLines)) {
        const std::size_t at = line.find(mark);
        const bool isNew = std::find(before.begin(), before.end(), line) == before.end();
        if (isNew && line.rfind("transfer ", 0) == 0 && at != std::string::npos) {
            return std::strtol(line.c_str() + at + mark.size(), nullptr, 10);
        }
    }
    return 0;
}

Finding judgedCall(Patient& patient, const Answer& answer)
{
    const char* const check = "call";
    char time[32];
    std::snprintf(time, sizeof time, " in %.1f ms", answer.milliseconds);
    const std::string text = "check_server_availability came back with resp_result " +
                             std::to_string(answer.result) + time;
    if (answer.result == 0) {
        const std::string odd = oddityOf(answer.info);
        if (!odd.empty()) {
            patient.callIll = true;
            return oddAnswer(check, text + ", and the store's answer is " + odd, answer.info);
        }
        return answer.milliseconds > patient.options.timeout * 1000 * kSlowPart
                   ? warning(check, "slow", text + ", which is slow",
                             "look at the network and the store")
                   : good(check, text);
    }
    // The text of a refusal is the service's own; any other comes from the server.
    const bool refused = exitCodeOf(answer.result) == EXIT_REFUSED;
    patient.callIll = !refused;
    return failed(check, refused ? "refused" : "transfer",
                  refused ? text + ": " + answer.info : withJournal(patient, text),
                  "mend what failed above or below; if nothing did, the service's log says more");
}

Finding checkCall(Patient& patient, const Bus& bus)
{
    const char* const check = "call";
    try {
        const std::vector<std::string> before = patient.eyes.journalTail(kJournalLines);
        const Answer answer = bus.call("check_server_availability", {}, patient.options.timeout);
        Finding finding = judgedCall(patient, answer);
        const long status = answer.result == 0 ? refusalSince(patient, before) : 0;
        if (status == 0) {
            return finding;
        }
        patient.callIll = true;
        return failed(check, status >= 500 ? "outage" : "status",
                      "the store answered the service with HTTP status " + std::to_string(status) +
                          ": " + beginningOf(answer.info),
                      status >= 500 ? "look at the store, or wait: the device has done its part"
                                    : "look at [config] and [account], and at the store's log");
    } catch (const Unreachable& error) {
        patient.callIll = true;
        return failed(check, "no-answer", error.what(), error.cure());
    }
}

/// @return when the file got its content: by a write, or by a rename of a new file; 0 when that is not known
double changeOf(const std::string& path)
{
    struct statx status {};
    if (statx(AT_FDCWD, path.c_str(), 0, STATX_MTIME | STATX_BTIME, &status) != 0) {
        return 0;
    }
    const auto seconds = [](const statx_timestamp& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    const double made = (status.stx_mask & STATX_BTIME) != 0 ? seconds(status.stx_btime) : 0;
    return std::max(seconds(status.stx_mtime), made);
}

Finding checkRestart(const Patient& patient)
{
    const char* const check = "restart";
    const char* const cure = "systemctl restart billing-service";
    const double started = patient.facts.process ? patient.facts.process->started : 0;
    if (started <= 0) {
        return notChecked(check, "the service does not run, or its start is not known");
    }
    if (changeOf(places::kDeviceCertificate) > started + kStartDoubt) {
        return warning(
            check, "certificate",
            "the device's certificate is newer than the service's start, and is read once: the "
            "service still has the one before",
            cure);
    }
    if (patient.callIll && platformReadsDeviceConf() &&
        changeOf(settings::filePath()) > started + kStartDoubt) {
        return warning(
            check, "settings",
            "the settings are newer than the service's start, and [deployment] credential, "
            "key_id and key_material are read once",
            cure);
    }
    return good(check, "the service has started after its certificate was put there");
}

}  // namespace

void checkService(Findings& findings, Patient& patient)
{
    try {
        const Bus bus(patient.options.bus, patient.options.timeout);
        findings.push_back(good("bus", "the system bus is reachable"));
        findings.push_back(checkUnit(patient));
        findings.push_back(checkName(patient, bus));
        if (findings.back().outcome == Outcome::Failed) {
            findings.push_back(notChecked("ping", "there is no service to answer it"));
            findings.push_back(notChecked("call", "there is no service to answer it"));
        } else {
            findings.push_back(checkPing(patient, bus));
            findings.push_back(findings.back().outcome == Outcome::Ok
                                   ? checkCall(patient, bus)
                                   : notChecked("call", "the ping comes first, see above"));
        }
        if (!patient.facts.process) {
            patient.facts = patient.eyes.facts(patient.options.bus, patient.options.timeout);
        }
        findings.push_back(checkRestart(patient));
        findings.push_back(checkCallers(patient, bus));
    } catch (const Unreachable& error) {
        findings.push_back(failed("bus", "unreachable", error.what(), error.cure()));
        for (const char* const check : {"unit", "name", "ping", "call", "restart", "callers"}) {
            findings.push_back(notChecked(check, "there is no bus to ask"));
        }
    }
}

}  // namespace client
