// doctor.cpp - the order of the checks, the output of their findings, and findings that several checks share.
#include "doctor.h"

#include "base/calls.h"
#include "base/json.h"
#include "base/process.h"
#include "base/text.h"
#include "device/certificate.h"
#include "linux/settings/module_environment.h"
#include "linux/settings/settings.h"
#include "settings/platform_library.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace client {

namespace {

constexpr std::size_t kIndent = 26;

std::string painted(Outcome outcome)
{
    const Style style = Style::of(STDOUT_FILENO);
    char text[16];
    std::snprintf(text, sizeof text, "%-11s", nameOf(outcome));
    switch (outcome) {
        case Outcome::Ok:
            return style.good(text);
        case Outcome::Warning:
            return style.odd(text);
        case Outcome::Failed:
            return style.bad(text);
        case Outcome::NotChecked:
            return style.faint(text);
    }
    return text;
}

void print(const Finding& finding)
{
    std::printf("%s  %-11s  %s\n", painted(finding.outcome).c_str(), finding.check.c_str(),
                shown(finding.text, false).c_str());
    if (!finding.cure.empty()) {
        std::printf("%*scure: %s\n", static_cast<int>(kIndent), "",
                    shown(finding.cure, false).c_str());
    }
    std::fflush(stdout);
}

/// Prints a line, only for warnings and failures.
void printTersely(const Finding& finding)
{
    if (!finding.cure.empty()) {
        std::printf("%s: %s; cure: %s\n", idOf(finding).c_str(), shown(finding.text, false).c_str(),
                    shown(finding.cure, false).c_str());
    }
}

int count(const Findings& findings, Outcome outcome)
{
    return static_cast<int>(
        std::count_if(findings.begin(), findings.end(),
                      [outcome](const Finding& finding) { return finding.outcome == outcome; }));
}

/// @return where this machine names a proxy, which the service does not use
std::string proxyNamedIn()
{
    for (const char* const name :
         {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "http_proxy"}) {
        const char* const value = std::getenv(name);
        if (value != nullptr && *value != '\0') {
            return std::string("the environment (") + name + ")";
        }
    }
    const std::string machine = contentOf("/etc/environment");
    return machine.find("_proxy=") != std::string::npos ||
                   machine.find("_PROXY=") != std::string::npos
               ? "/etc/environment"
               : "";
}

std::string hostName()
{
    char name[HOST_NAME_MAX + 1] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

void printReport(const Findings& findings)
{
    Json::Value result;
    result["version"] = BILLING_VERSION;
    result["host"] = hostName();
    result["checks"] = Json::Value(Json::arrayValue);
    for (const Finding& finding : findings) {
        result["checks"].append(valueOf(finding));
    }
    result["failed"] = count(findings, Outcome::Failed);
    result["warnings"] = count(findings, Outcome::Warning);
    printLine(result);
}

void printSummary(const Findings& findings)
{
    const int ill = count(findings, Outcome::Failed);
    const int odd = count(findings, Outcome::Warning);
    if (ill > 0) {
        std::printf("%d of %zu checks failed\n", ill, findings.size());
    }
    if (odd > 0) {
        std::printf("%d of %zu checks %s to be looked at\n", odd, findings.size(),
                    odd == 1 ? "has" : "have");
    }
}

/// Takes the service's identity for the checks.
Finding takeIdentity(Patient& patient)
{
    const bool root = geteuid() == 0;
    if (root) {
        Finding finding = become(patient.identity);
        patient.asService = isService(patient.identity);
        return finding;
    }
    patient.asService = isService(patient.identity);
    const std::string user = userName(geteuid());
    return patient.asService
               ? good("identity", "looked as " + user + ", the user of the service")
               : notChecked("identity", "looked as " + user +
                                            ", who is not the service: what this user may not "
                                            "read is not checked; run it as root");
}

void identify(Findings& findings, Patient& patient)
{
    patient.facts = patient.eyes.facts(patient.options.bus, patient.options.timeout);
    patient.identity = identityOf(patient.facts);
    findings.push_back(takeIdentity(patient));
    patient.noLibrary = loadPlatform();
    if (platformReadsDeviceConf()) {
        keystore::takeEnvironment();
    }
    if (patient.options.sign) {
        // The PIN will be in memory: no core file and no debugger of the same user may read it. The umask is for files that
        // the token's module writes at its login.
        prctl(PR_SET_DUMPABLE, 0);
        umask(S_IRWXG | S_IRWXO);
    }
}

}  // namespace

std::string whyMissing(const char* group, const char* key, const std::string& complaint)
{
    if (!platformReadsDeviceConf() && !complaint.empty()) {
        return complaint;
    }
    const std::string name = std::string("[") + group + "] " + key;
    return platformReadsDeviceConf() && settings::isRefused(group, key)
               ? name + " holds what it may not, see settings above"
               : name + " is not set";
}

Finding settingsClosed(const char* check)
{
    return notChecked(check, "this user may not read the settings; run it as root");
}

Finding unreadable(const Patient& patient, const char* check, const std::string& path, int error,
                   const char* cure)
{
    if (error == EACCES && !patient.asService) {
        return notChecked(check, "this user may not read " + path + "; run it as root");
    }
    const std::string cause =
        path + ": " +
        (error == kNoFile ? "a pipe, a socket or a device, and no file" : std::strerror(error));
    if (error == EACCES) {
        return failed(
            check, "closed", cause,
            "let the service read it: chmod a+r " + path + ", and chmod a+x on the folders above");
    }
    return failed(check, "missing", cause, cure);
}

int doctor(const DoctorOptions& options)
{
    const Eyes eyes(geteuid() == 0);
    Patient patient(options, eyes);
    patient.proxy = proxyNamedIn();
    Findings findings;
    std::size_t printed = 0;
    for (const auto check : {identify, checkSettings, checkDevice, checkKeyStore, checkStore,
                             checkService, checkRequest}) {
        check(findings, patient);
        for (; printed < findings.size() && !options.json; ++printed) {
            options.terse ? printTersely(findings[printed]) : print(findings[printed]);
        }
    }
    if (options.json) {
        printReport(findings);
    } else if (!options.terse) {
        printSummary(findings);
    }
    if (count(findings, Outcome::Failed) > 0) {
        return EXIT_FAILED;
    }
    return count(findings, Outcome::Warning) > 0 ? EXIT_WARNING : EXIT_DONE;
}

}  // namespace client
