// platform/include/platform/account.h - the account that is signed in on the device.
#pragma once
#ifdef __cplusplus
extern "C" {
#endif

/// Record of the sign-on service about the signed-in account: 1408 bytes, of which this system uses
/// one field.
typedef struct {
    char reserved1[256];
    char user_id[256];  ///< NUL-terminated; a reader stops at 256 bytes in any case
    char reserved2[896];
} sso_login_info_s;

/// Reads the globally unique id of the account, and its authorisation token.
/// @param[out] out a heap copy that the caller frees with free(); untouched when nobody is signed
///   in, when the value holds a control character or cannot be read. Set it to null before the
///   call.
/// @return 0, or another number on failure; the text alone decides
/// Thread: any.
int sso_get_guid(char** out);
int sso_get_auth_token(char** out);

/// Reads the login information.
/// @param[in,out] info not null; the service passes it zero-filled, but a platform must not rely on
///   that. user_id with its terminator is set on success only
/// @return 0, or another number when nobody is signed in, or the id is longer than 255 bytes or
///   holds a control character
/// Thread: any.
int sso_get_login_info(sso_login_info_s* info);

#ifdef __cplusplus
}
#endif
