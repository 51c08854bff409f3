// platform/include/platform/device_conf.h - for billingctl alone. A platform may leave this function out.
#pragma once
#ifdef __cplusplus
extern "C" {
#endif

/// Tells whether the values stand in the file that device.conf(5) describes, and the keys in the token that [keystore] there
/// names. billingctl then reads file and token itself, and names faults by line and setting. A platform of another kind
/// leaves the function out: its other functions are asked then, and nothing else.
/// @return 1, or 0 for no
/// Thread: any.
int platform_reads_device_conf(void);

#ifdef __cplusplus
}
#endif
