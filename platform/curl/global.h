// global.h - initialization of the libraries, once for the process.
#pragma once

namespace MZCurl {

/// Initializes libcurl and OpenSSL, once. May be called again after a failure.
/// @return false when the initialization failed
bool initializeLibraries();

}  // namespace MZCurl
