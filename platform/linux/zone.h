// zone.h - the offsets of the local time zone at a moment.
#pragma once

#include <ctime>

namespace zone {

struct Offsets {
    int standard = 0;  ///< seconds east of UTC without daylight saving
    int daylight = 0;  ///< seconds that daylight saving adds; else 0
};

/// @return false when localtime_r() fails for the moment
/// Thread: any.
bool offsetsAt(time_t moment, Offsets& out);

/// True if TZ is not set or names an existing zone. For an unknown one the C library silently takes
/// UTC.
bool isNamed();

}  // namespace zone
