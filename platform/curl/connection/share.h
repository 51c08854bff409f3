// share.h - the TLS sessions and the loaded CA file that the transfers of one multi handle share. Without a share the
// sessions would be lost with the easy handle that made them.
#pragma once

#include "curl/transfer/attempt.h"

#include <curl/curl.h>
#include <sys/stat.h>

#include <memory>
#include <string>

namespace MZCurl {

/// Thread: one, the worker. There are no locks: a transfer has the share only while the worker performs it.
class SessionShare {
public:
    /// Gives the shared sessions to a transfer that names a CA file. When the file has changed since the sessions were
    /// verified, this transfer and later ones start without sessions, over new connections that read the file: resumed
    /// sessions and kept connections are not verified again.
    /// @return false, with the reason in the transfer's error text, for a CA file that may have no end
    bool attach(Attempt& attempt);
    static void detach(Attempt& attempt);

private:
    /// The CA file that the sessions were verified with; differs when the file was written or replaced.
    struct Trust {
        std::string path;
        struct stat file;
    };
    void renew();

    std::shared_ptr<CURLSH> m_share;
    Trust m_trust{};
    std::string m_caFile;        // path alias under which libcurl has the CA file
    unsigned int m_changes = 0;  // number of its changes
};

}  // namespace MZCurl
