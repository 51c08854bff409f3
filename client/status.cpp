// status.cpp - prints the state of the service.
#include "status.h"

#include "base/calls.h"
#include "base/json.h"
#include "base/platform_log.h"
#include "base/text.h"
#include "common/places.h"
#include "device/certificate.h"
#include "device/eyes.h"
#include "device/identity.h"
#include "linux/settings/settings.h"
#include "settings/platform_library.h"

#include <platform/account.h>
#include <platform/deployment.h>
#include <platform/system_info.h>

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <utility>
#include <vector>

namespace client {

namespace {

constexpr const char* kNotKnown = "not known";

/// Lines by their names.
using Lines = std::vector<std::pair<std::string, std::string>>;

std::string whenOf(double seconds)
{
    const auto time = static_cast<time_t>(seconds);
    struct tm parts {};
    char text[32] = "";
    if (gmtime_r(&time, &parts) != nullptr) {
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
    }
    const long age = std::lround(std::difftime(std::time(nullptr), time));
    char since[64];
    std::snprintf(since, sizeof since, " (%ld h %ld min)", age / 3600, age / 60 % 60);
    return std::string(text) + since;
}

using Text = std::unique_ptr<char, decltype(&std::free)>;

/// @return which of the two servers is chosen, with its host
std::string serverText()
{
    int type = 1;  // the service's default
    system_info_get_value_int(SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE, &type);
    const bool sandbox = type == 1 || type == 2;
    const Text host(
        deployment_get_host(sandbox ? DEPLOYMENT_HOST_SANDBOX : DEPLOYMENT_HOST_PRODUCTION),
        std::free);
    return std::string(sandbox ? "sandbox, " : "production, ") +
           (host != nullptr ? host.get() : "no host is set");
}

std::string accountText()
{
    char* guid = nullptr;
    const bool known = sso_get_guid(&guid) == 0;
    const Text owner(guid, std::free);
    return known ? "signed in" : "no user is signed in";
}

std::string certificateText()
{
    const PemFile file = readPem(places::kDeviceCertificate);
    if (file.certificates.empty()) {
        return "none that can be read";
    }
    const X509* const certificate = file.certificates.front().get();
    return "\"" + nameOf(certificate) + "\", " + daysText(daysLeft(certificate));
}

void addSettings(Lines& lines)
{
    const std::string problem = loadPlatform();
    const bool fileSays = platformReadsDeviceConf();
    const std::string path = fileSays ? settings::filePath() : "";
    const int error = fileSays ? openErrorOf(path) : 0;
    lines.emplace_back("settings", fileSays ? path : kOwnLibrary);
    if (!problem.empty()) {
        lines.emplace_back("server", std::string(kNotKnown) + ": " + problem);
        lines.emplace_back("account", kNotKnown);
    } else if (error != 0) {
        lines.emplace_back("server", std::string(kNotKnown) + ": " +
                                         (error == EACCES ? "this user may not read the settings"
                                                          : path + ": " + std::strerror(error)));
        lines.emplace_back("account", kNotKnown);
    } else {
        lines.emplace_back("server", serverText());
        lines.emplace_back("account", accountText());
    }
    takeComplaint();
    lines.emplace_back("certificate", certificateText());
}

void addRecord(Lines& lines, const Record& record)
{
    lines.emplace_back("connections",
                       record.connections ? std::to_string(*record.connections) : kNotKnown);
    if (!record.journalKnown) {
        lines.emplace_back("calls", std::string(kNotKnown) +
                                        ": there is no journal of it that this user may read");
        lines.emplace_back("last failure", kNotKnown);
        return;
    }
    lines.emplace_back("calls", std::to_string(record.answered) + " answered (0), " +
                                    std::to_string(record.lost) + " failed (-1), " +
                                    std::to_string(record.refused) + " refused (1160003)");
    lines.emplace_back("last failure", record.failure.empty() ? "none" : record.failure);
}

void print(const Lines& lines, bool json)
{
    Json::Value value;
    for (const auto& [name, text] : lines) {
        if (json) {
            value[name] = text;
        } else {
            std::printf("%-12s  %s\n", name.c_str(), shown(text, false).c_str());
        }
    }
    if (json) {
        printLine(value);
    }
}

}  // namespace

int status(const StatusOptions& options)
{
    const Eyes eyes(geteuid() == 0);
    const Facts facts = eyes.facts(options.bus, options.timeout);
    const Record record = facts.process ? eyes.record(facts.process->pid) : Record{};
    const Identity identity = identityOf(facts);
    if (geteuid() == 0) {
        become(identity);
    }
    Lines lines{{"billingctl", BILLING_VERSION}};
    if (facts.process) {
        const Process& process = *facts.process;
        lines.emplace_back("service", "runs as " + identity.user + ", process " +
                                          std::to_string(process.pid) +
                                          (process.program.empty() ? "" : ", " + process.program));
        lines.emplace_back("version", process.version.empty() ? kNotKnown : process.version);
        lines.emplace_back("since", process.started > 0 ? whenOf(process.started) : kNotKnown);
    } else {
        lines.emplace_back("service", facts.noBus.empty()
                                          ? "does not run"
                                          : std::string(kNotKnown) + ": " + facts.noBus);
    }
    if (facts.unit) {
        lines.emplace_back("unit", facts.unit->active + " (" + facts.unit->sub + ")");
    }
    addSettings(lines);
    if (facts.process) {
        addRecord(lines, record);
    }
    print(lines, options.json);
    return facts.process ? EXIT_DONE : EXIT_UNREACHABLE;
}

}  // namespace client
