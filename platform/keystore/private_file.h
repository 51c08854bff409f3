// private_file.h - files and folders with access for the service's own user alone. Modes are set and
// checked independently of the umask.
#pragma once

#include "common/descriptor.h"
#include "common/secret_bytes.h"

#include <optional>
#include <string>

namespace privatefile {

// Each function throws secure::Error, whose text names the path, the cause and the cure.

/// Reads a whole file that holds a secret.
/// @throw secure::Error unless it is a regular file of at most `limit` bytes, without rights for
///   group and others
secret::Bytes readSecret(const std::string& path, std::size_t limit);

/// Opens the folder. A missing folder is made with mode 0700; its parent must exist.
/// @throw secure::Error unless the folder belongs to this user, without rights for group and others
Descriptor openFolder(const std::string& path);

/// Reads a file of a folder.
/// @return nullopt when there is no file of that name
std::optional<secret::Bytes> readIn(const Descriptor& folder, const std::string& name,
                                    std::size_t limit);

/// Writes a file of a folder, or replaces it. After a power cut the folder holds either the whole
/// old file or the whole new one. The caller lets one writer in at a time.
void replaceIn(const Descriptor& folder, const std::string& name, const void* bytes,
               std::size_t size);

/// Removes a file of a folder. A power cut after the return does not bring it back.
/// @return false when there is no file of that name
bool removeIn(const Descriptor& folder, const std::string& name);

}  // namespace privatefile
