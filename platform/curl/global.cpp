// global.cpp - initialization of the libraries. It is never undone: resolver threads may still run when main has returned.
#include "global.h"

#include <curl/curl.h>
#include <openssl/crypto.h>

#include <mutex>

namespace MZCurl {

bool initializeLibraries()
{
    static std::mutex lock;
    static bool done = false;
    const std::lock_guard<std::mutex> guard(lock);
    if (!done) {
        // OpenSSL's exit handler would free what a running thread still uses.
        done = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1 &&
               curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    }
    return done;
}

}  // namespace MZCurl
