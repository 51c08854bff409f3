// OnBehalf.h - on whose behalf a thread logs and adds transfers.
#pragma once

#include <platform/MZCurl.h>
#include <platform/log.h>

/// While it lives, the log and the requests of this thread are on a bus client's behalf.
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
