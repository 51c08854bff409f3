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

Finding calls(const Bus& bus, double timeout)
{
    const char* const method = "check_server_availability";
    try {
        const Answer answer = bus.call(method, {}, timeout);
        char time[32];
        std::snprintf(time, sizeof time, " in %.1f ms", answer.milliseconds);
        const std::string text = std::string(method) + " came back with resp_result " +
                                 std::to_string(answer.result) + time;
        if (answer.result == 0) {
            return {"call", Outcome::Ok, text, ""};
        }
        const std::string info = answer.info.empty() ? "" : ": " + answer.info.substr(0, 200);
        return {"call", Outcome::Failed, text + info,
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
        const auto owner = bus.owner();
        if (owner) {
            findings.push_back({"name", Outcome::Ok,
                                std::string(SERVICE) + " is owned by " + programOf(owner->pid) +
                                    " (process " + std::to_string(owner->pid) + ", user " +
                                    userOf(owner->uid) + ")",
                                ""});
        } else {
            findings.push_back({"name", Outcome::Failed,
                                std::string("nobody owns the name ") + SERVICE,
                                "start the service (systemctl start billing-service) and look at "
                                "its log"});
        }
        findings.push_back(calls(bus, options.timeout));
    } catch (const Unreachable& error) {
        findings.push_back({"bus", Outcome::Failed, error.what(), error.cure()});
        findings.push_back({"name", Outcome::NotChecked, "there is no bus to ask", ""});
        findings.push_back({"call", Outcome::NotChecked, "there is no bus to call over", ""});
    }
}

}  // namespace client
