// identity.h - who the service is on this device, and becoming it.
#pragma once

#include "facts.h"
#include "finding.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace client {

/// User, groups and environment of the service.
struct Identity {
    bool known = false;
    std::string source;  ///< "process 4711", "the unit", "the account"
    std::string cause;   ///< why it is not known
    uid_t uid = 0;
    gid_t gid = 0;
    std::string user;   ///< its name, as this machine has it
    std::string group;  ///< likewise
    std::vector<gid_t> groups;
    std::vector<std::string> environment;  ///< "NAME=value"
    bool environmentKnown = false;
    unsigned pid = 0;  ///< of the process; 0: none
};

/// From the process that runs, else from the unit, else from the account of the installation. The
/// group of the callers is among the groups, where there is one.
Identity identityOf(const Facts& facts);

/// True when this process runs as the service's user.
bool isService(const Identity& identity);

/// Takes the service's mounts and network, environment, groups and user. For root; what cannot be
/// taken stays as it is.
/// @return what the doctor looks as
Finding become(const Identity& identity);

/// The name of a user or its number, and of a group.
std::string userName(uid_t uid);
std::string groupName(gid_t gid);
/// The names of this process's groups, with blanks between.
std::string ownGroups();

}  // namespace client
