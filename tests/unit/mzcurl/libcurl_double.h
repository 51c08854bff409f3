// libcurl_double.h - stands in front of libcurl and OpenSSL in one test program: makes a call fail,
// and notes what was called by whom.
#pragma once

#include <curl/curl.h>

#include <string>
#include <thread>
#include <vector>

namespace test {

struct LibcurlDouble {
    int failEasyInit = 0;  ///< how many of the next calls fail; likewise below
    int failMultiInit = 0;
    int failAddHandle = 0;
    int failPoll = 0;
    int failGlobalInit = 0;
    CURLoption failOption = CURLOPT_LASTENTRY;  ///< this option is refused

    std::vector<std::string> setUp;             ///< calls that set a library up, in order
    std::vector<std::thread::id> shareSetters;  ///< threads that attached or detached the share
};

/// The one double of the program.
LibcurlDouble& libcurl();

}  // namespace test
