// doctor.cpp - the order of the checks, and their report.
#include "doctor.h"

#include "calls.h"
#include "json.h"
#include "text.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

namespace client {

namespace {

const char* nameOf(Outcome outcome)
{
    switch (outcome) {
        case Outcome::Ok:
            return "ok";
        case Outcome::Failed:
            return "failed";
        case Outcome::NotChecked:
            return "not checked";
    }
    return "";
}

void print(const Finding& finding)
{
    const Style style = Style::of(STDOUT_FILENO);
    char outcome[16];
    std::snprintf(outcome, sizeof outcome, "%-11s", nameOf(finding.outcome));
    const std::string painted = finding.outcome == Outcome::Ok       ? style.good(outcome)
                                : finding.outcome == Outcome::Failed ? style.bad(outcome)
                                                                     : style.faint(outcome);
    std::printf("%s  %-11s  %s\n", painted.c_str(), finding.check,
                shown(finding.text, false).c_str());
    if (!finding.cure.empty()) {
        std::printf("%26scure: %s\n", "", shown(finding.cure, false).c_str());
    }
    std::fflush(stdout);
}

Json::Value valueOf(const Finding& finding)
{
    Json::Value value;
    value["check"] = finding.check;
    value["outcome"] = nameOf(finding.outcome);
    value["finding"] = finding.text;
    if (!finding.cure.empty()) {
        value["cure"] = finding.cure;
    }
    return value;
}

}  // namespace

int doctor(const DoctorOptions& options)
{
    if (options.sign) {
        // The PIN passes through the memory: no core file, no debugger of the same user. The mode is
        // for the files that the token's module writes when it logs in.
        prctl(PR_SET_DUMPABLE, 0);
        umask(S_IRWXG | S_IRWXO);
    }
    Findings findings;
    std::size_t printed = 0;
    int failed = 0;
    Json::Value report;
    report["checks"] = Json::Value(Json::arrayValue);
    for (const auto check : {checkDevice, checkStore, checkService}) {
        check(findings, options);
        for (; printed < findings.size(); ++printed) {
            const Finding& finding = findings[printed];
            failed += finding.outcome == Outcome::Failed ? 1 : 0;
            if (options.json) {
                report["checks"].append(valueOf(finding));
            } else {
                print(finding);
            }
        }
    }
    if (options.json) {
        report["failed"] = failed;
        printLine(report);
    } else if (failed > 0) {
        std::printf("%d of %zu checks failed\n", failed, findings.size());
    }
    return failed == 0 ? EXIT_DONE : EXIT_FAILED;
}

}  // namespace client
