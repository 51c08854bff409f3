// share.h - what the transfers of one multi handle have in common about trust: the TLS sessions, which
// would otherwise die with the easy handle that made them, and what was read from the CA file.
#pragma once

#include "transfer.h"

#include <curl/curl.h>
#include <sys/stat.h>

#include <memory>
#include <string>

namespace MZCurl {

/// Thread: one. There are no locks: a transfer holds the share only while the worker has it.
class SessionShare {
public:
    /// Gives a transfer that names a CA file the sessions. When the file is not the one that they
    /// were verified with, it and those after it start with none, over new connections that read it:
    /// a session that is taken up again is not verified again, nor is a connection that is kept.
    /// @return false, with the reason in the transfer's error text, for a CA file whose reader might
    /// wait for ever
    bool attach(Transfer& transfer);
    static void detach(Transfer& transfer);

private:
    /// Which file the sessions were verified with; changes when it is written or replaced.
    struct Trust {
        std::string path;
        struct stat file;
    };
    void renew();

    std::shared_ptr<CURLSH> m_share;
    Trust m_trust{};
    std::string m_caFile;        // what libcurl calls that file
    unsigned int m_changes = 0;  // of it
};

}  // namespace MZCurl
