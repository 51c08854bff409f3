// share.cpp - sessions outlive the easy handle that made them, but not the CA file that they were
// verified with.
#include "share.h"

#include <cstdio>
#include <new>
#include <tuple>

namespace MZCurl {
namespace {

auto identity(const struct stat& file)
{
    return std::make_tuple(file.st_dev, file.st_ino, file.st_size, file.st_mtim.tv_sec,
                           file.st_mtim.tv_nsec, file.st_ctim.tv_sec, file.st_ctim.tv_nsec);
}

}  // namespace

void SessionShare::renew()
{
    m_share.reset();
    m_share.reset(curl_share_init(), curl_share_cleanup);
    if (m_share != nullptr && curl_share_setopt(m_share.get(), CURLSHOPT_SHARE,
                                                CURL_LOCK_DATA_SSL_SESSION) != CURLSHE_OK) {
        m_share.reset();
    }
}

bool SessionShare::attach(Transfer& transfer)
{
    if (transfer.caFile.empty()) {
        return true;
    }
    struct stat file {};
    if (stat(transfer.caFile.c_str(), &file) != 0) {
        file = {};
    } else if (!S_ISREG(file.st_mode) && !S_ISDIR(file.st_mode)) {
        // libcurl opens it and reads to its end, on the thread of all transfers.
        std::snprintf(
            transfer.errorBuffer.data(), transfer.errorBuffer.size(),
            "the CA file %s is a pipe, a socket or a device; put a file of certificates there",
            transfer.caFile.c_str());
        return false;
    }
    try {
        if (transfer.caFile != m_trust.path || identity(file) != identity(m_trust.file)) {
            m_trust = {transfer.caFile, file};
            renew();
        }
    } catch (const std::bad_alloc&) {
        // Without a share there are handshakes more, and nothing else.
        m_trust = {};
        m_share.reset();
    }
    transfer.share = m_share;
    curl_easy_setopt(transfer.curl.get(), CURLOPT_SHARE, m_share.get());
    return true;
}

void SessionShare::detach(Transfer& transfer)
{
    curl_easy_setopt(transfer.curl.get(), CURLOPT_SHARE, static_cast<CURLSH*>(nullptr));
    transfer.share.reset();
}

}  // namespace MZCurl
