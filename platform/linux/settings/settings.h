// settings.h - the values of the device's settings file, as they stand at the moment of asking.
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace settings {

/// Where the settings are: the file that PLEVO_DEVICE_CONF names, or the device's own.
std::string filePath();

/// Reads one setting. A change of the file is seen at once; what is wrong in it is logged when it
/// is first seen, once for each version of the file.
/// @return nullopt when it is not set, empty, refused, or when the file cannot be read
/// Thread: any.
std::optional<std::string> text(const char* group, const char* key);

/// The same without a copy: the text lives as long as the result. @return null where `text` returns nullopt
std::shared_ptr<const std::string> shared(const char* group, const char* key);

/// The same for a whole number of 32 bits.
std::optional<int> number(const char* group, const char* key);

/// Is the key there, with a value that was refused, which is logged by now? Thread: any.
bool isRefused(const char* group, const char* key);

/// Logs, once for each version of the file, that a setting which is needed now is not set. Silent
/// when the setting or the whole file was refused, since that has been logged. Thread: any.
void reportMissing(const char* group, const char* key, const char* consequence);

}  // namespace settings
