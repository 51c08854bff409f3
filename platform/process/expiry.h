// expiry.h - a word in time that the device's certificate ends.
#pragma once

namespace process {

/// Logs a warning when the device's certificate ends soon, is over or is not valid yet by this
/// machine's clock. Silent without a certificate, which the service itself reports.
/// Thread: main, before any other exists.
void warnOfExpiry();

}  // namespace process
