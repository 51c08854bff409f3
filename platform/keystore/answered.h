// answered.h - turns exceptions of secure storage, key store and crypto container into error numbers of the seam.
#pragma once

#include "secure_error.h"

#include <platform/log.h>

#include <openssl/err.h>

#include <new>

namespace seam {

/// Leaves the thread's queue of OpenSSL's errors as it was. A module may have left some there, also of a call that went well,
/// and a handshake under way on the thread would take them for its own and fail.
class OpenSslErrors {
public:
    OpenSslErrors() { ERR_set_mark(); }
    ~OpenSslErrors() { ERR_pop_to_mark(); }
    OpenSslErrors(const OpenSslErrors&) = delete;
    OpenSslErrors& operator=(const OpenSslErrors&) = delete;
};

/// Runs the body of a function that answers with an error number; what it throws becomes the number
/// and a line of the log.
/// @param area what the line begins with
template <typename Body>
int answered(const char* area, Body body) noexcept
{
    const OpenSslErrors untouched;
    try {
        body();
        return SS_ERROR_NONE;
    } catch (const secure::Error& error) {
        if (*error.what() != '\0')
            __dlog_print(DLOG_ERROR, "BILLING_PLATFORM", "%s: %s", area, error.what());
        return error.code();
    } catch (const std::exception&) {
        // The one exception left is a lack of memory.
        return SS_ERROR_NO_MEMORY;
    }
}

}  // namespace seam
