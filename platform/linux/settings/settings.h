// settings.h - the present values of the device's settings file.
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace settings {

/// Path of the settings file: PLEVO_DEVICE_CONF, else the device's own file.
std::string filePath();

/// Reads one setting of the present file. Faults in the file are logged once for each version.
/// @return nullopt when the setting is not set, empty or refused, or the file cannot be read
/// Thread: any.
std::optional<std::string> text(const char* group, const char* key);

/// The same without a copy: the text lives as long as the result. @return null where `text` returns nullopt
std::shared_ptr<const std::string> shared(const char* group, const char* key);

/// The same for a whole number of 32 bits.
std::optional<int> number(const char* group, const char* key);

/// True if the key has a value that was refused; the log has a line about it.
/// Thread: any.
bool isRefused(const char* group, const char* key);

/// Logs that a needed setting is not set, once for each version of the file. Silent when the setting
/// or the whole file was refused, since the log has that already.
/// Thread: any.
void reportMissing(const char* group, const char* key, const char* consequence);

}  // namespace settings
