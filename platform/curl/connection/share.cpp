// share.cpp - keeps TLS sessions and the loaded CA file for as long as the CA file stays the same.
#include "share.h"

#include <cstdio>
#include <new>
#include <tuple>

namespace MZCurl {
namespace {

// libcurl keeps a loaded CA file until the file's name changes.
constexpr long kForever = -1;

auto identity(const struct stat& file)
{
    return std::make_tuple(file.st_dev, file.st_ino, file.st_size, file.st_mtim.tv_sec,
                           file.st_mtim.tv_nsec, file.st_ctim.tv_sec, file.st_ctim.tv_nsec);
}

/// @return an alias of the path, different for each number. libcurl identifies a loaded CA file, and the connections
///   verified with it, by the file's name: for another name it reads the file again.
std::string otherName(const std::string& path, unsigned int number)
{
    if (number == 0) {
        return path;
    }
    const bool absolute = path.front() == '/';
    std::string name = absolute ? "" : ".";
    for (; number > 0; number /= 2) {
        name += number % 2 == 1 ? "/." : "/";
    }
    return name + (absolute ? "" : "/") + path;
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

bool SessionShare::attach(Attempt& attempt)
{
    const std::string& caFile = attempt.options.caFile;
    if (caFile.empty()) {
        return true;
    }
    struct stat file {};
    if (stat(caFile.c_str(), &file) != 0) {
        file = {};
    } else if (!S_ISREG(file.st_mode) && !S_ISDIR(file.st_mode)) {
        // libcurl would read it to its end on the worker, which might never come.
        std::snprintf(
            attempt.errorBuffer.data(), attempt.errorBuffer.size(),
            "the CA file %s is a pipe, a socket or a device; put a file of certificates there",
            caFile.c_str());
        return false;
    }
    try {
        if (caFile != m_trust.path || identity(file) != identity(m_trust.file)) {
            m_trust = {caFile, file};
            m_caFile = otherName(caFile, m_changes++);
            renew();
        }
        if (curl_easy_setopt(attempt.curl.get(), CURLOPT_CAINFO, m_caFile.c_str()) == CURLE_OK) {
            curl_easy_setopt(attempt.curl.get(), CURLOPT_CA_CACHE_TIMEOUT, kForever);
        }
    } catch (const std::bad_alloc&) {
        // Without a share there are more handshakes; nothing else fails.
        m_trust = {};
        m_share.reset();
    }
    attempt.share = m_share;
    curl_easy_setopt(attempt.curl.get(), CURLOPT_SHARE, m_share.get());
    return true;
}

void SessionShare::detach(Attempt& attempt)
{
    curl_easy_setopt(attempt.curl.get(), CURLOPT_CA_CACHE_TIMEOUT, 0L);
    curl_easy_setopt(attempt.curl.get(), CURLOPT_SHARE, static_cast<CURLSH*>(nullptr));
    attempt.share.reset();
}

}  // namespace MZCurl
