// handles.h - libcurl's handles that are kept for the next transfers, since making one costs as much as all its options.
#pragma once

#include <curl/curl.h>

#include <memory>

namespace MZCurl {

struct EasyCleanup {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
using EasyHandle = std::unique_ptr<CURL, EasyCleanup>;

/// @return a handle that was kept; null when there is none. Any thread
EasyHandle takeHandle();

/// Keeps a handle for another transfer, or frees it when enough are kept. Any thread.
/// Precondition: nothing of the transfer is left in it: options, sessions, connections.
void keepHandle(EasyHandle handle);

/// Frees the handles that are kept. Any thread.
void dropHandles();

}  // namespace MZCurl
