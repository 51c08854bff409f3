// facts.h - what the system knows of the service: the process that has its name, its unit, its log.
#pragma once

#include "base/process.h"

#include <json/json.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace client {

/// The service's unit, where there is a systemd.
struct Unit {
    std::string load;    ///< loaded, not-found, masked
    std::string active;  ///< active, failed, activating
    std::string sub;     ///< running, dead, auto-restart
    std::string result;  ///< success, exit-code, timeout
    int code = 0;        ///< CLD_EXITED and others, of the last process
    int status = 0;      ///< its exit status or signal
    unsigned restarts = 0;
    std::string program;
    std::string user;
    std::string group;
    std::vector<std::string> groups;       ///< further ones
    std::vector<std::string> environment;  ///< "NAME=value", those of its files included
};

struct Facts {
    std::optional<Process> process;
    std::optional<Unit> unit;
};

/// @param bus address; empty: the system's @param timeout seconds
Facts factsOf(const std::string& bus, double timeout);

/// The last warnings and errors of the service and its manager in the journal, the newest last, at
/// most so many. Empty where there is no journal or this user may not read it.
std::vector<std::string> journalTail(int lines);

/// What the service has done since its start.
struct Record {
    std::optional<int> connections;  ///< that it keeps
    bool journalKnown = false;
    unsigned answered = 0;             ///< resp_result 0
    unsigned lost = 0;                 ///< resp_result -1
    unsigned refused = 0;              ///< resp_result 1160003
    std::string failure;               ///< the last one, with its time; empty: none
    std::vector<std::string> callers;  ///< lines of callers that are held back, refused or gone on
};
Record recordOf(unsigned pid);

/// For another process.
Json::Value packed(const Record& record);
Record recordFrom(const Json::Value& value);
Json::Value packed(const Facts& facts);
Facts unpacked(const Json::Value& value);

}  // namespace client
