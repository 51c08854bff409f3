// platform/include/platform/system_info.h - facts of the device, set by its maker.
#pragma once
#ifdef __cplusplus
extern "C" {
#endif

/// Numbers of the values. A platform with other numbers changes them here.
typedef enum {
    SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE = 126,  ///< kind of the maker's servers that the device uses
} system_info_key_e;

/// Reads a number.
/// @param key one of the above
/// @param[out] out set on success only; not null
/// @return 0, or another number when the value is unknown or cannot be read
/// Thread: any.
int system_info_get_value_int(system_info_key_e key, int* out);

#ifdef __cplusplus
}
#endif
