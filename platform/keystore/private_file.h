// private_file.h - files and folders that only the service's own user may see. Modes are given and
// checked, whatever the umask.
#pragma once

#include "common/descriptor.h"
#include "common/secret_bytes.h"

#include <optional>
#include <string>

namespace privatefile {

// Each throws secure::Error with a text that names the path, the cause and the cure.

/// Reads a whole file that holds a secret.
/// @throw unless it is a regular file that nobody else may read or write, of at most so many bytes
secret::Bytes readSecret(const std::string& path, std::size_t limit);

/// The folder, made when it is missing but its parent is there.
/// @throw unless it belongs to this user and nobody else has a right to it
Descriptor openFolder(const std::string& path);

/// Reads a file of a folder. @return nullopt when there is none of that name
std::optional<secret::Bytes> readIn(const Descriptor& folder, const std::string& name,
                                    std::size_t limit);

/// Puts a file into a folder in place of one of the same name: after a power cut there is the old
/// one or the new one, whole. For one writer at a time.
void replaceIn(const Descriptor& folder, const std::string& name, const void* bytes,
               std::size_t size);

/// @return false when there is none of that name. Lasting when it returns.
bool removeIn(const Descriptor& folder, const std::string& name);

}  // namespace privatefile
