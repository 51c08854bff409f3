// global.h - what is set up once for the process.
#pragma once

namespace MZCurl {

/// Sets up libcurl and OpenSSL, once. @return false when that failed; may be tried again
bool initializeLibraries();

}  // namespace MZCurl
