// global.cpp - initialization of the libraries. It is never undone: resolver threads may still run when main has returned.
#include "global.h"

#include <curl/curl.h>
#include <openssl/crypto.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace MZCurl {

namespace {

// Room for the texts of a TLS session: a host's name, a path, a list of ciphers.
constexpr std::size_t kReserve = 4096;

std::atomic<void*> reserve;

/// libcurl 7.88 frees a host's name twice if there is no memory for a text of a session that it keeps. So a text that finds
/// no memory gets some of the reserve's.
char* copyText(const char* text)
{
    char* copy = strdup(text);
    if (copy == nullptr) {
        std::free(reserve.exchange(nullptr));
        copy = strdup(text);
        std::free(reserve.exchange(std::malloc(kReserve)));
    }
    return copy;
}

}  // namespace

bool initializeLibraries()
{
    static std::mutex lock;
    static bool done = false;
    const std::lock_guard<std::mutex> guard(lock);
    if (!done) {
        std::free(reserve.exchange(std::malloc(kReserve)));
        // OpenSSL's exit handler would free what a running thread still uses.
        done = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1 &&
               curl_global_init_mem(CURL_GLOBAL_DEFAULT, std::malloc, std::free, std::realloc,
                                    copyText, std::calloc) == CURLE_OK;
    }
    return done;
}

}  // namespace MZCurl
