// platform_library.cpp - the platform's functions, forwarded to the device's library.
#include "platform_library.h"

#include "linux/settings/settings.h"

#include <platform/account.h>
#include <platform/config.h>
#include <platform/crypto_container.h>
#include <platform/deployment.h>
#include <platform/device_conf.h>
#include <platform/network.h>
#include <platform/runtime_info.h>
#include <platform/secure_storage.h>
#include <platform/system_info.h>
#include <platform/timezone.h>

#include <dlfcn.h>

#include <atomic>

namespace {

constexpr const char* kLibrary = "libbilling-platform.so.1";
/// An int, not the enumerator: the functions return int.
constexpr int kUnavailable = SS_ERROR_UNAVAILABLE;

std::atomic<void*> g_library{nullptr};

/// @return null when there is no library or no such function in it
template <typename Function>
Function* inLibrary(const char* name)
{
    void* const library = g_library;
    return library != nullptr ? reinterpret_cast<Function*>(dlsym(library, name)) : nullptr;
}

/// Calls a function of the library.
/// @param leftOut the result when there is no such function
template <typename Function, typename Result, typename... Arguments>
Result ask(const char* name, Result leftOut, Arguments... arguments)
{
    Function* const function = inLibrary<Function>(name);
    return function != nullptr ? function(arguments...) : leftOut;
}

}  // namespace

#define ASK(function, ...) ask<decltype(function)>(#function, __VA_ARGS__)

int connection_profile_check_default_gateway(bool* exists)
{
    return ASK(connection_profile_check_default_gateway, ENOSYS, exists);
}

bool connection_profile_has_changed(void)
{
    return ASK(connection_profile_has_changed, false);
}

int create_CryptoCoreContainer(int algorithm, CryptoCoreContainer** container)
{
    return ASK(create_CryptoCoreContainer, -1, algorithm, container);
}

void destroy_CryptoCoreContainer(CryptoCoreContainer* container)
{
    const auto destroy = inLibrary<decltype(destroy_CryptoCoreContainer)>(__func__);
    if (destroy != nullptr)
        destroy(container);
}

int deployment_get_credential(uint32_t words[5])
{
    return ASK(deployment_get_credential, -1, words);
}

char* deployment_get_host(deployment_host_e which)
{
    return ASK(deployment_get_host, static_cast<char*>(nullptr), which);
}

int deployment_get_key_id(int32_t* key_id)
{
    return ASK(deployment_get_key_id, -1, key_id);
}

int deployment_get_key_material(unsigned char** sealed, size_t* size)
{
    return ASK(deployment_get_key_material, -1, sealed, size);
}

int mz_gettimezone(int* utcoff, int* dstoff, void* reserved)
{
    return ASK(mz_gettimezone, -1, utcoff, dstoff, reserved);
}

int runtime_info_get_value_string(runtime_info_key_e key, char** out)
{
    return ASK(runtime_info_get_value_string, -1, key, out);
}

int ss_encrypt_by_key(const ss_credential_s* credential, int32_t key_id, unsigned char** block,
                      size_t* size, int reserved1, int reserved2)
{
    return ASK(ss_encrypt_by_key, kUnavailable, credential, key_id, block, size, reserved1,
               reserved2);
}

void ss_free_buffer(unsigned char* buffer)
{
    const auto release = inLibrary<decltype(ss_free_buffer)>(__func__);
    if (release != nullptr)
        release(buffer);
}

int ss_init_credential(ss_credential_s* credential, uint32_t w0, uint32_t w1, uint32_t w2,
                       uint32_t w3, uint32_t w4, uint32_t kind, uint32_t reserved)
{
    return ASK(ss_init_credential, kUnavailable, credential, w0, w1, w2, w3, w4, kind, reserved);
}

int ss_read(unsigned char** buffer, size_t* size, int reserved1, int reserved2, const char* name,
            const ss_credential_s* credential, int flags)
{
    return ASK(ss_read, kUnavailable, buffer, size, reserved1, reserved2, name, credential, flags);
}

int ss_write(const unsigned char* data, size_t size, const void* reserved1, int reserved2,
             const char* name, const ss_credential_s* credential, int flags)
{
    return ASK(ss_write, kUnavailable, data, size, reserved1, reserved2, name, credential, flags);
}

int ss_delete(int reserved, const char* name, const ss_credential_s* credential, int flags)
{
    return ASK(ss_delete, kUnavailable, reserved, name, credential, flags);
}

// Not forwarded: the doctor signs, but must not change a key.
int ss_store_rsa_key(const ss_credential_s*, int, int, const unsigned char*, size_t,
                     const unsigned char*, size_t, int, int, int32_t*, int, int)
{
    return SS_ERROR_REFUSED;
}

int ss_remove_key(const ss_credential_s*, int32_t)
{
    return SS_ERROR_REFUSED;
}

int sso_get_auth_token(char** out)
{
    return ASK(sso_get_auth_token, -1, out);
}

int sso_get_guid(char** out)
{
    return ASK(sso_get_guid, -1, out);
}

int sso_get_login_info(sso_login_info_s* info)
{
    return ASK(sso_get_login_info, -1, info);
}

int system_info_get_value_int(system_info_key_e key, int* out)
{
    return ASK(system_info_get_value_int, -1, key, out);
}

int vconf_get_int(const char* key, int* out)
{
    return ASK(vconf_get_int, -1, key, out);
}

char* vconf_get_str(const char* key)
{
    return ASK(vconf_get_str, static_cast<char*>(nullptr), key);
}

namespace client {

std::string loadPlatform()
{
    if (g_library == nullptr)
        g_library = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
    if (g_library != nullptr)
        return "";
    const char* const why = dlerror();
    return why != nullptr ? why : kLibrary;
}

bool platformReadsDeviceConf()
{
    constexpr int kYes = 1;
    return g_library == nullptr ||
           ask<decltype(platform_reads_device_conf)>("platform_reads_device_conf", 0) == kYes;
}

std::string placeOf(const std::string& function)
{
    return platformReadsDeviceConf() ? settings::filePath()
                                     : function + "() of the device's own library";
}

}  // namespace client
