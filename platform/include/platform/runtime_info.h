// platform/include/platform/runtime_info.h - settings of the user, who may change them while the
// device runs.
#pragma once
#ifdef __cplusplus
extern "C" {
#endif

/// Numbers of the values. A platform with other numbers changes them here.
typedef enum {
    RUNTIME_INFO_KEY_LANGUAGE =
        0,  ///< language of the menus, as a locale name such as "en_US.utf8"
} runtime_info_key_e;

/// Reads a text.
/// @param key one of the above
/// @param[out] out on success a heap copy that the caller frees with free(); untouched otherwise;
///   not null
/// @return 0, or another number when the value is unknown, empty, holds a control character or
///   cannot be read
/// Thread: any.
int runtime_info_get_value_string(runtime_info_key_e key, char** out);

#ifdef __cplusplus
}
#endif
