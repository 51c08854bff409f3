// files.h - how the tool reads and writes files: whole or not at all, and never over another
// unasked.
#pragma once

#include "common/secret_bytes.h"

#include <sys/types.h>

#include <string>
#include <string_view>

namespace provision {

constexpr mode_t kSecretMode = 0600;
constexpr mode_t kPublicMode = 0644;

// Each throws Stop.

/// Writes a file by way of a temporary one beside it. One that root replaces keeps its owner. @param replace false: EXIT_EXISTS when there
/// is one of that name
void writeFile(const std::string& path, std::string_view bytes, mode_t mode, bool replace);

/// The file that a path names once its last part is no link any more; it need not be there.
std::string behindLinks(const std::string& path);

/// Writes to standard output, and makes sure that it has arrived.
void print(const std::string& text);

/// Reads a file, or standard input for "-". At most 64 KiB.
secret::Bytes readFile(const std::string& path);

/// Makes a folder with mode 0700. One that is there is taken.
void makeFolder(const std::string& path);

/// Lasting when it returns.
void removeFile(const std::string& path);

bool exists(const std::string& path);

/// So many random bytes, as hexadecimal digits.
std::string randomHex(std::size_t bytes);

}  // namespace provision
