// libcurl_double.h - replaces functions of libcurl and OpenSSL in one test program: makes calls fail and
// records calls with their threads.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace test {

struct LibcurlDouble {
    int failEasyInit = 0;  ///< number of next calls that fail; the same for the members below
    int failMultiInit = 0;
    int failAddHandle = 0;
    int failPoll = 0;
    int failGlobalInit = 0;
    std::function<void()> onAddHandle;          ///< called before a handle is added
    CURLoption failOption = CURLOPT_LASTENTRY;  ///< the option whose setting fails

    int easyHandles = 0;                        ///< number of handles made so far
    curl_strdup_callback copyText = nullptr;    ///< with which libcurl copies texts
    std::atomic<bool> noMemory = false;         ///< strdup fails while the reserve is held
    std::atomic<void*> reserve = nullptr;       ///< the last block of 4096 bytes, until it is freed
    std::vector<std::string> setUp;             ///< calls that initialise a library, in order
    std::vector<std::thread::id> shareSetters;  ///< threads that attached or detached the share
};

/// The double of the program.
LibcurlDouble& libcurl();

}  // namespace test
