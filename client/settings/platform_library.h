// platform_library.h - the library with the device's functions, which the service has and this program loads. Every function
// of the seam is defined here too: it asks the library, and answers as one that is left out while there is none.
#pragma once

#include <string>

namespace client {

/// Loads the library that the service would load. For root: after the service's identity was taken, since the library is code
/// of the device's.
/// @return why it cannot be loaded, empty when it is. Thread: main, before any other exists.
std::string loadPlatform();

/// True when the values stand in the file of device.conf(5), which this program then reads itself; also while no library is
/// loaded. Thread: any.
bool platformReadsDeviceConf();

/// Where a value of this device is set: the file of device.conf(5), or a function of the device's own library.
std::string placeOf(const std::string& function);

}  // namespace client
