// handles.h - a pool of libcurl's handles for the next transfers: making a handle costs as much as setting all its options.
#pragma once

#include <curl/curl.h>

#include <memory>

namespace MZCurl {

struct EasyCleanup {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
using EasyHandle = std::unique_ptr<CURL, EasyCleanup>;

/// Takes a handle from the pool. Thread: any.
/// @return null when the pool is empty
EasyHandle takeHandle();

/// Puts a handle into the pool, or frees it when the pool is full. Thread: any.
/// Precondition: the handle has nothing left of its transfer: no options, sessions or connections.
void keepHandle(EasyHandle handle);

/// Frees the handles of the pool. Thread: any.
void dropHandles();

}  // namespace MZCurl
