// share.h - the TLS sessions that the transfers of one multi handle have in common. Without it each
// session would die with the easy handle that made it.
#pragma once

#include <curl/curl.h>

#include <memory>

#include "transfer.h"

namespace MZCurl {

/// Thread: one. There are no locks: a transfer holds the share only while the worker has it.
class SessionShare {
public:
    /// @return false when there is no memory
    bool initialize();

    void attach(Transfer& transfer);
    static void detach(Transfer& transfer);

private:
    struct Cleanup {
        void operator()(CURLSH* share) const { curl_share_cleanup(share); }
    };
    std::unique_ptr<CURLSH, Cleanup> m_share;
};

}  // namespace MZCurl
