// identity.h - user, groups and environment of the service, and changing this process to them.
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
    std::string source;  ///< "process 4711", "the unit" or "the account"
    std::string cause;   ///< why the identity is not known
    uid_t uid = 0;
    gid_t gid = 0;
    std::string user;   ///< name of the user on this machine
    std::string group;  ///< name of the group on this machine
    std::vector<gid_t> groups;
    std::vector<std::string> environment;  ///< "NAME=value"
    bool environmentKnown = false;
    unsigned pid = 0;  ///< of the service's process; 0: none
};

/// Takes the identity from the running process, else from the unit, else from the installation's account. Adds the group of
/// the callers, if it exists.
Identity identityOf(const Facts& facts);

/// @return whether this process runs as the service's user
bool isService(const Identity& identity);

/// Takes over the service's mounts and network, environment, groups and user. Needs root; what cannot be taken over stays
/// as it is.
/// @return finding: the identity under which the doctor checks
Finding become(const Identity& identity);

/// @return the name of a user; without one its number
std::string userName(uid_t uid);
std::string groupName(gid_t gid);
/// @return the names of this process's groups, separated by blanks
std::string ownGroups();

}  // namespace client
