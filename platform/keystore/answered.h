// answered.h - how secure storage, key store and crypto container answer through the seam.
#pragma once

#include "secure_error.h"

#include <platform/log.h>

#include <new>

namespace seam {

/// Runs the body of a function that answers with an error number; what it throws becomes the number
/// and a line of the log.
/// @param area what the line begins with
template <typename Body>
int answered(const char* area, Body body) noexcept
{
    try {
        body();
        return SS_ERROR_NONE;
    } catch (const secure::Error& error) {
        if (*error.what() != '\0')
            __dlog_print(DLOG_ERROR, "BILLING_PLATFORM", "%s: %s", area, error.what());
        return error.code();
    } catch (const std::exception&) {
        // Nothing but memory is left to fail.
        return SS_ERROR_NO_MEMORY;
    }
}

}  // namespace seam
