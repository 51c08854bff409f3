// share.cpp - sessions outlive the easy handle that made them.
#include "share.h"

namespace MZCurl {

bool SessionShare::initialize()
{
    m_share.reset(curl_share_init());
    if (m_share != nullptr && curl_share_setopt(m_share.get(), CURLSHOPT_SHARE,
                                                CURL_LOCK_DATA_SSL_SESSION) != CURLSHE_OK) {
        m_share.reset();
    }
    return m_share != nullptr;
}

void SessionShare::attach(Transfer& transfer)
{
    curl_easy_setopt(transfer.curl.get(), CURLOPT_SHARE, m_share.get());
}

void SessionShare::detach(Transfer& transfer)
{
    curl_easy_setopt(transfer.curl.get(), CURLOPT_SHARE, static_cast<CURLSH*>(nullptr));
}

}  // namespace MZCurl
