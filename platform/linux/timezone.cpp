// timezone.cpp - timezone.h: the local time zone.
#include "common/c_functions.h"
#include "zone.h"

#include <platform/log.h>
#include <platform/timezone.h>

#include <cstdlib>
#include <ctime>

int mz_gettimezone(int* utcoff, int* dstoff, void*)
{
    return seam::guarded(-1, [&] {
        if (!zone::isNamed()) {
            __dlog_print(DLOG_ERROR, "BILLING_PLATFORM",
                         "time zone: TZ=%s names no zone of this device", getenv("TZ"));
            return -1;
        }
        // Takes notice of a zone that was changed since the last time.
        tzset();
        zone::Offsets offsets;
        if (!zone::offsetsAt(time(nullptr), offsets))
            return -1;
        *utcoff = offsets.standard;
        *dstoff = offsets.daylight;
        return 0;
    });
}
