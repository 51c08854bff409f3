// expiry.h - warns before the device's certificate ends.
#pragma once

namespace process {

/// Logs a warning when the device's certificate ends soon, has ended or is not valid yet, by this
/// machine's clock. Silent without a certificate: the service reports that itself.
/// @param path of the certificate, a PEM file of at most 64 KiB
/// Thread: main, before any other thread exists.
void warnOfExpiry(const char* path);

}  // namespace process
