// mzcurl_double.h - stands in for the curl wrapper in the connector's tests: it records options in
// order, notes each other call in the timeline, refuses what a test wants refused, and finishes transfers when the test says so.
#pragma once

#include <platform/MZCurl.h>

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

struct CurlDouble {
    // What fails.
    int iMultiInitializeFailures =
        0;  ///< that many Initialize() calls of the multi handle, from now on
    bool bEasyInitializeFails = false;
    bool bAddFails = false;
    bool bRemoveFails = false;
    bool bPerformFails = false;
    bool bSelectFails = false;
    bool bInfoFails = false;
    bool bSendFails = false;
    int iRefusedOption = 0;  ///< this option number is refused with the text "no"

    // What was seen.
    std::vector<std::string> options;  ///< "<number> <value>", in order, of every easy handle
    /// Which locks the asking thread holds, as each call's note in the timeline is to end.
    std::function<std::string()> locks;
    void* pPrivate = nullptr;  ///< of the last easy handle
    MZCurl::WriteCallback pfnWrite = nullptr;
    void* pWriteData = nullptr;
    MZCurl::SslContextCallback pfnSslContext = nullptr;
    void* pSslContextData = nullptr;

    // What the worker's loop gets.
    std::deque<MZCurl::MZCurlMulti::MultiMsg> messages;
    int iRunning = 0;  ///< count that fdSelect() reports, lowered by each removal
    std::string strLastError = "no";
};

/// The one double of the process. Thread: hold the mutex where the worker may be running.
CurlDouble& Curl();
std::mutex& CurlMutex();
