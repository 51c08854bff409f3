// OnBehalf.h - marks log lines and transfers of a thread with the caller that they serve.
#pragma once

#include <platform/MZCurl.h>
#include <platform/log.h>

/// For its lifetime, log lines and new transfers of this thread carry a bus client's name.
class COnBehalf {
public:
    /// @param szSender the client's unique name; null for nobody
    explicit COnBehalf(const char* szSender) { set(szSender); }
    ~COnBehalf() { set(nullptr); }
    COnBehalf(const COnBehalf&) = delete;
    COnBehalf& operator=(const COnBehalf&) = delete;

private:
    static void set(const char* szSender)
    {
        log_set_caller(szSender);
        MZCurl::MZCurlMulti::SetSender(szSender);
    }
};
