// platform/include/platform/timezone.h - the platform's time zone.
#pragma once
#ifdef __cplusplus
extern "C" {
#endif

/// Reads the offsets in force now.
/// @param[out] utcoff seconds east of UTC without daylight saving; set on success only; not null
/// @param[out] dstoff seconds that daylight saving adds now, else 0; set on success only;
///   not null
/// @param reserved null
/// @return 0, or -1 when the zone cannot be read
/// Thread: any.
int mz_gettimezone(int* utcoff, int* dstoff, void* reserved);

#ifdef __cplusplus
}
#endif
