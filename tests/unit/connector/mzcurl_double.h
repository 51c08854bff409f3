// mzcurl_double.h - double of the curl wrapper for the connector's tests. It records options in order, notes
// every other call in the timeline, fails the calls that a test names, and finishes transfers when the test
// says so.
#pragma once

#include <platform/MZCurl.h>

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

struct CurlDouble {
    // Failures.
    int iMultiInitializeFailures =
        0;  ///< number of next Initialize() calls of the multi handle that fail
    bool bEasyInitializeFails = false;
    bool bAddFails = false;
    bool bRemoveFails = false;
    bool bPerformFails = false;
    bool bSelectFails = false;
    bool bInfoFails = false;
    bool bSendFails = false;
    int iRefusedOption = 0;  ///< this option number is refused with the text "no"

    // Records of the calls.
    std::vector<std::string> options;  ///< "<number> <value>", in order, of every easy handle
    /// Text that ends the note of each call: the locks that the calling thread holds.
    std::function<std::string()> locks;
    void* pPrivate = nullptr;  ///< of the last easy handle
    MZCurl::WriteCallback pfnWrite = nullptr;
    void* pWriteData = nullptr;
    MZCurl::SslContextCallback pfnSslContext = nullptr;
    void* pSslContextData = nullptr;

    // Input of the worker's loop.
    std::deque<MZCurl::MZCurlMulti::MultiMsg> messages;
    int iRunning = 0;  ///< count that fdSelect() reports; each removal lowers it
    std::string strLastError = "no";
};

/// The double of the process. Thread: hold its mutex where the worker may be running.
CurlDouble& Curl();
std::mutex& CurlMutex();
