// facts.h - data about the service: the process that owns its name, its unit, its log.
#pragma once

#include "base/process.h"

#include <json/json.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace client {

/// The service's systemd unit.
struct Unit {
    std::string load;    ///< loaded, not-found, masked
    std::string active;  ///< active, failed, activating
    std::string sub;     ///< running, dead, auto-restart
    std::string result;  ///< success, exit-code, timeout
    int code = 0;        ///< CLD_EXITED and others, of the last process
    int status = 0;      ///< exit status or signal of the last process
    unsigned restarts = 0;
    std::string program;
    std::string user;
    std::string group;
    std::vector<std::string> groups;       ///< supplementary groups
    std::vector<std::string> environment;  ///< "NAME=value", including its EnvironmentFiles
};

struct Facts {
    std::string noBus;  ///< why the bus cannot be asked, with the cure; empty: it was asked
    std::optional<Process> process;
    std::optional<Unit> unit;
};

/// @param bus address; empty: the system bus
/// @param timeout seconds
Facts factsOf(const std::string& bus, double timeout);

/// @param lines number of lines at most
/// @return the last warnings and errors of the service and its manager in the journal, newest last; empty without a
///   journal or when this user may not read it
std::vector<std::string> journalTail(int lines);

/// The service's activity since its start.
struct Record {
    std::optional<int> connections;  ///< open TCP connections
    bool journalKnown = false;
    unsigned answered = 0;             ///< resp_result 0
    unsigned lost = 0;                 ///< resp_result -1
    unsigned refused = 0;              ///< resp_result 1160003
    std::string failure;               ///< the last failure, with its time; empty: none
    std::vector<std::string> callers;  ///< lines about callers that are held back or refused
};
Record recordOf(unsigned pid);

/// @return the record as JSON, for another process
Json::Value packed(const Record& record);
Record recordFrom(const Json::Value& value);
Json::Value packed(const Facts& facts);
Facts unpacked(const Json::Value& value);

}  // namespace client
