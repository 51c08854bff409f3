#include "doubles.h"

#define GLIB_VERSION_MIN_REQUIRED GLIB_VERSION_2_26
#include <platform/log.h>

#include <Ecore.h>
#include <glib.h>
#include <malloc.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>

namespace test {

Events& events()
{
    static Events all;
    return all;
}

Wait& wait()
{
    static Wait one;
    return one;
}

namespace {

// Set before the constructors of the program run.
GSliceConfig g_sliceSetting;
gint64 g_sliceValue;

std::string formatted(const timespec* limit)
{
    if (limit == nullptr)
        return "none";
    char text[64];
    snprintf(text, sizeof text, "%ld.%09ld", static_cast<long>(limit->tv_sec),
             static_cast<long>(limit->tv_nsec));
    return text;
}

}  // namespace

std::string slices()
{
    return (g_sliceSetting == G_SLICE_CONFIG_ALWAYS_MALLOC ? "always malloc: " : "nothing: ") +
           std::to_string(g_sliceValue);
}

}  // namespace test

extern "C" {

int __dlog_print(log_priority priority, const char* tag, const char* format, ...)
{
    char text[512];
    va_list values;
    va_start(values, format);
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
    const std::string letter = priority == DLOG_WARN ? "W" : std::to_string(priority);
    test::events().push_back(letter + "/" + tag + ": " + text);
    return 0;
}

int __real_ppoll(pollfd* files, nfds_t count, const timespec* limit, const sigset_t* mask);
int __wrap_ppoll(pollfd* files, nfds_t count, const timespec* limit, const sigset_t* mask)
{
    if (test::wait() == nullptr)
        return __real_ppoll(files, count, limit, mask);
    std::vector<pollfd> polled(files, files + count);
    const int result = test::wait()(polled, test::formatted(limit), *mask);
    std::copy(polled.begin(), polled.end(), files);
    return result;
}

int __wrap_mallopt(int parameter, int value)
{
    const std::string name = parameter == M_MMAP_THRESHOLD   ? "mapping"
                             : parameter == M_TRIM_THRESHOLD ? "kept"
                                                             : std::to_string(parameter);
    test::events().push_back("mallopt " + name + " " + std::to_string(value));
    return 1;
}

int __real_OPENSSL_init_crypto(std::uint64_t options, const OPENSSL_INIT_SETTINGS* settings);
int __wrap_OPENSSL_init_crypto(std::uint64_t options, const OPENSSL_INIT_SETTINGS* settings)
{
    test::events().push_back(options == OPENSSL_INIT_NO_ATEXIT && settings == nullptr
                                 ? "OpenSSL without an exit handler"
                                 : "OpenSSL");
    return __real_OPENSSL_init_crypto(options, settings);
}

__attribute__((no_sanitize("address", "thread", "undefined"))) void __wrap_g_slice_set_config(
    GSliceConfig setting, gint64 value)
{
    test::g_sliceSetting = setting;
    test::g_sliceValue = value;
}

void __real_ecore_app_no_system_modules();
void __wrap_ecore_app_no_system_modules()
{
    test::events().push_back("no system modules");
    __real_ecore_app_no_system_modules();
}

void __real_ecore_main_loop_glib_always_integrate_disable();
void __wrap_ecore_main_loop_glib_always_integrate_disable()
{
    test::events().push_back("no integration");
    __real_ecore_main_loop_glib_always_integrate_disable();
}

}  // extern "C"
