// platform/include/platform/config.h - the platform's configuration store: named values that
// outlive a restart.
#pragma once
#ifdef __cplusplus
extern "C" {
#endif

/// Reads a text.
/// @param key full name, such as "db/comss/atoken"; not null
/// @return a heap copy that the caller frees with free(), or null when the key is absent, empty of
///   a value or cannot be read. The text never holds a control character: such a value is refused
///   (null) and logged.
/// Thread: any. The value is the one of the moment of the call.
char* vconf_get_str(const char* key);

/// Reads a number.
/// @param key full name, such as "memory/menu/network/set_time"; not null
/// @param[out] out set on success only; not null
/// @return 0, or a negative number when the key is absent or is not a whole number of 32 bits
/// Thread: any.
int vconf_get_int(const char* key, int* out);

#ifdef __cplusplus
}
#endif
