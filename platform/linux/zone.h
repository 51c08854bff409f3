// zone.h - the offsets of the local time zone at a moment.
#pragma once

#include <ctime>

namespace zone {

struct Offsets {
    int standard = 0;  ///< seconds east of UTC without daylight saving
    int daylight = 0;  ///< what daylight saving adds; 0 outside of it
};

/// @return false when the moment cannot be broken down
/// Thread: any.
bool offsetsAt(time_t moment, Offsets& out);

/// Does TZ, when it is set, name a zone that exists? The C library takes UTC without a word when it
/// does not.
bool isNamed();

}  // namespace zone
