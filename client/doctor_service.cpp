// doctor_service.cpp - the service as a caller meets it.
#include "calls.h"
#include "doctor.h"

#include <pwd.h>
#include <unistd.h>

#include <climits>
#include <cstdio>

namespace client {

namespace {

std::string programOf(unsigned pid)
{
    char path[PATH_MAX];
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    const ssize_t length = readlink(link.c_str(), path, sizeof path);
    return length > 0 ? std::string(path, static_cast<std::size_t>(length))
                      : "a program that only root may look at";
}

std::string userOf(unsigned uid)
{
    const passwd* const user = getpwuid(uid);
    return user != nullptr ? user->pw_name : std::to_string(uid);
}

std::string describe(const Owner& owner)
{
    return (owner.pid ? programOf(*owner.pid) + " (process " + std::to_string(*owner.pid)
                      : "a program (process not known") +
           ", user " + (owner.uid ? userOf(*owner.uid) : "not known") + ")";
}

Finding checkName(const Bus& bus)
{
    const std::string name = SERVICE;
    if (const auto owner = bus.owner()) {
        return {"name", Outcome::Ok, name + " is owned by " + describe(*owner), ""};
    }
    if (bus.startsService()) {
        return {"name", Outcome::Ok, "nobody owns " + name + " now; the bus starts it for a call",
                ""};
    }
    return {"name", Outcome::Failed, "nobody owns the name " + name,
            "start the service (systemctl start billing-service) and look at its log"};
}

Finding checkCall(const Bus& bus, double timeout)
{
    const std::string method = "check_server_availability";
    try {
        const Answer answer = bus.call(method, {}, timeout);
        char time[32];
        std::snprintf(time, sizeof time, " in %.1f ms", answer.milliseconds);
        const std::string text =
            method + " came back with resp_result " + std::to_string(answer.result) + time;
        if (answer.result == 0) {
            return {"call", Outcome::Ok, text, ""};
        }
        // A refusal is in the service's own words; anything else would be the server's.
        const bool refused = exitCodeOf(answer.result) == EXIT_REFUSED;
        return {"call", Outcome::Failed, text + (refused ? ": " + answer.info : ""),
                "mend what failed above; if nothing did, the service's log says more"};
    } catch (const Unreachable& error) {
        return {"call", Outcome::Failed, error.what(), error.cure()};
    }
}

}  // namespace

void checkService(Findings& findings, const DoctorOptions& options)
{
    try {
        const Bus bus(options.bus, options.timeout);
        findings.push_back({"bus", Outcome::Ok, "the system bus is reachable", ""});
        findings.push_back(checkName(bus));
        findings.push_back(
            findings.back().outcome == Outcome::Ok
                ? checkCall(bus, options.timeout)
                : Finding{"call", Outcome::NotChecked, "there is nobody to answer it", ""});
    } catch (const Unreachable& error) {
        findings.push_back({"bus", Outcome::Failed, error.what(), error.cure()});
        findings.push_back({"name", Outcome::NotChecked, "there is no bus to ask", ""});
        findings.push_back({"call", Outcome::NotChecked, "there is no bus to call over", ""});
    }
}

}  // namespace client
