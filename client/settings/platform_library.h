// platform_library.h - the device's platform library, which this program loads as the service does. The functions of the
// seam defined here forward to the library; without one they answer as a function that the device leaves out.
#pragma once

#include <string>

namespace client {

/// Where the settings are if platformReadsDeviceConf() is false, for people.
inline constexpr const char* kOwnLibrary = "the device's own library";

/// Loads the library that the service would load. As root, call it only after taking the service's identity: the library is
/// the device's code. Thread: main, before any other thread exists.
/// @return why the library cannot be loaded; empty when it is loaded
std::string loadPlatform();

/// @return whether the values come from the file of device.conf(5), which this program then reads itself; true also without
///   a library. Thread: any
bool platformReadsDeviceConf();

/// @return where a value of this device is set: the file of device.conf(5), or a function of the device's own library
std::string placeOf(const std::string& function);

}  // namespace client
