// files.h - reads and writes files: whole or not at all, and never over an existing one without
// --force.
#pragma once

#include "common/secret_bytes.h"

#include <sys/types.h>

#include <string>
#include <string_view>

namespace provision {

constexpr mode_t kSecretMode = 0600;
constexpr mode_t kPublicMode = 0644;

// Each function throws Stop.

/// Writes a file by way of a temporary one beside it. A file that root replaces keeps its owner.
/// @param replace false: throws EXIT_EXISTS when the file exists
void writeFile(const std::string& path, std::string_view bytes, mode_t mode, bool replace);

/// Follows symbolic links at the end of a path. The file at the end need not exist.
std::string behindLinks(const std::string& path);

/// Writes to standard output and flushes it.
void print(const std::string& text);

/// Reads a file, or standard input for "-". At most 64 KiB.
secret::Bytes readFile(const std::string& path);

/// Makes a folder with mode 0700, unless it exists.
void makeFolder(const std::string& path);

/// Removes a file. A power cut after the return does not bring it back.
void removeFile(const std::string& path);

bool exists(const std::string& path);

/// Random bytes as hexadecimal digits.
std::string randomHex(std::size_t bytes);

}  // namespace provision
