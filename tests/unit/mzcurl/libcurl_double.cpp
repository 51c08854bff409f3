// libcurl_double.cpp - the functions that the linker puts in the place of those of libcurl and OpenSSL.
#include "libcurl_double.h"

#include <openssl/crypto.h>

#include <cstdarg>
#include <cstdint>
#include <utility>

namespace test {

LibcurlDouble& libcurl()
{
    static LibcurlDouble instance;
    return instance;
}

namespace {

bool takeFailure(int& count)
{
    if (count == 0) {
        return false;
    }
    --count;
    return true;
}

}  // namespace
}  // namespace test

using test::libcurl;
using test::takeFailure;

extern "C" {

CURL* __real_curl_easy_init();
CURLM* __real_curl_multi_init();
CURLMcode __real_curl_multi_add_handle(CURLM* multi, CURL* easy);
CURLMcode __real_curl_multi_poll(CURLM* multi, curl_waitfd* extra, unsigned int count, int timeout,
                                 int* ready);
CURLcode __real_curl_global_init_mem(long flags, curl_malloc_callback allocate,
                                     curl_free_callback release, curl_realloc_callback resize,
                                     curl_strdup_callback copy, curl_calloc_callback clear);
void* __real_malloc(std::size_t size);
void __real_free(void* memory);
char* __real_strdup(const char* text);
int __real_OPENSSL_init_crypto(std::uint64_t options, const OPENSSL_INIT_SETTINGS* settings);
CURLcode __real_curl_easy_setopt(CURL* easy, CURLoption option, ...);

CURL* __wrap_curl_easy_init()
{
    ++libcurl().easyHandles;
    return takeFailure(libcurl().failEasyInit) ? nullptr : __real_curl_easy_init();
}

CURLM* __wrap_curl_multi_init()
{
    return takeFailure(libcurl().failMultiInit) ? nullptr : __real_curl_multi_init();
}

CURLMcode __wrap_curl_multi_add_handle(CURLM* multi, CURL* easy)
{
    if (const auto call = std::exchange(libcurl().onAddHandle, {})) {
        call();
    }
    return takeFailure(libcurl().failAddHandle) ? CURLM_OUT_OF_MEMORY
                                                : __real_curl_multi_add_handle(multi, easy);
}

CURLMcode __wrap_curl_multi_poll(CURLM* multi, curl_waitfd* extra, unsigned int count, int timeout,
                                 int* ready)
{
    return takeFailure(libcurl().failPoll)
               ? CURLM_OUT_OF_MEMORY
               : __real_curl_multi_poll(multi, extra, count, timeout, ready);
}

CURLcode __wrap_curl_global_init_mem(long flags, curl_malloc_callback allocate,
                                     curl_free_callback release, curl_realloc_callback resize,
                                     curl_strdup_callback copy, curl_calloc_callback clear)
{
    libcurl().setUp.emplace_back("libcurl");
    libcurl().copyText = copy;
    return takeFailure(libcurl().failGlobalInit)
               ? CURLE_OUT_OF_MEMORY
               : __real_curl_global_init_mem(flags, allocate, release, resize, copy, clear);
}

void* __wrap_malloc(std::size_t size)
{
    void* const memory = __real_malloc(size);
    if (size == 4096) {
        libcurl().reserve = memory;
    }
    return memory;
}

void __wrap_free(void* memory)
{
    void* held = memory;
    libcurl().reserve.compare_exchange_strong(held, nullptr);
    __real_free(memory);
}

char* __wrap_strdup(const char* text)
{
    const bool fails = libcurl().noMemory && libcurl().reserve != nullptr;
    return fails ? nullptr : __real_strdup(text);
}

int __wrap_OPENSSL_init_crypto(std::uint64_t options, const OPENSSL_INIT_SETTINGS* settings)
{
    libcurl().setUp.emplace_back(
        (options & OPENSSL_INIT_NO_ATEXIT) != 0 ? "OpenSSL without exit handler" : "OpenSSL");
    return __real_OPENSSL_init_crypto(options, settings);
}

// A plain number, because an enumeration must not be the last parameter before variable arguments.
CURLcode __wrap_curl_easy_setopt(CURL* easy, unsigned int number, ...)
{
    const auto option = static_cast<CURLoption>(number);
    if (option == libcurl().failOption) {
        return CURLE_OUT_OF_MEMORY;
    }
    if (option == CURLOPT_SHARE) {
        libcurl().shareSetters.push_back(std::this_thread::get_id());
    }
    std::va_list list;
    va_start(list, number);
    CURLcode code = CURLE_OK;
    // The range of an option's number gives the type of its value.
    if (option < CURLOPTTYPE_OBJECTPOINT) {
        code = __real_curl_easy_setopt(easy, option, va_arg(list, long));
    } else if (option < CURLOPTTYPE_OFF_T) {
        code = __real_curl_easy_setopt(easy, option, va_arg(list, void*));
    } else {
        code = __real_curl_easy_setopt(easy, option, va_arg(list, curl_off_t));
    }
    va_end(list);
    return code;
}

}  // extern "C"
