// platform/include/platform/system_info.h - facts of the device that its maker set.
#pragma once
#ifdef __cplusplus
extern "C" {
#endif

/// The number of a value. A platform with numbers of its own gives them here.
typedef enum {
    SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE =
        126,  ///< which of the maker's servers the device belongs to
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
