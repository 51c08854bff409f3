// rules.cpp - libcurl's options that hold for every transfer, and those of each attempt.
#include "callbacks.h"
#include "repeat.h"
#include "tls.h"
#include "transfer.h"

namespace MZCurl {
namespace {

// libcurl 7.88 keeps the connections of a host in one bundle. Once one of them speaks HTTP/2, libcurl puts requests onto any
// connection in use, HTTP/1.1 included, and the answers would be swapped. The address scope separates bundles, and the
// kernel uses it for link-local addresses only.
constexpr long kApart = 1;

}  // namespace

bool Transfer::applyRules()
{
    CURL* const handle = curl.get();
    bool ok = true;
    const auto set = [&](CURLoption option, auto value) {
        ok = curl_easy_setopt(handle, option, value) == CURLE_OK && ok;
    };
    // For a process with threads: no signal for a time-out, and no wait for a stuck name look-up when its transfer ends.
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_QUICK_EXIT, 1L);
    // No proxy, password file or redirect may influence a transfer.
    set(CURLOPT_PROTOCOLS_STR, "https");
    set(CURLOPT_PROXY, "");
    set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
    set(CURLOPT_FOLLOWLOCATION, 0L);
    // Refuses TLS below 1.2: libcurl would accept it.
    set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    // TLS 1.2: only suites with fresh keys and authenticated encryption. All suites of TLS 1.3 are such.
    set(CURLOPT_SSL_CIPHER_LIST, "ECDHE+AESGCM:ECDHE+CHACHA20:DHE+AESGCM:DHE+CHACHA20:!aNULL:!PSK");
    // Only the file of CAINFO is trusted: by default libcurl also trusts the distribution's bundle and folder. Each new
    // connection reads the file, so that a changed one counts, unless a SessionShare watches it.
    set(CURLOPT_CAINFO, static_cast<const char*>(nullptr));
    set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    set(CURLOPT_CA_CACHE_TIMEOUT, 0L);
    set(CURLOPT_WRITEFUNCTION, onBody);
    set(CURLOPT_HEADERFUNCTION, onHeader);
    set(CURLOPT_SSL_CTX_FUNCTION, onSslContext);
    set(CURLOPT_PREREQFUNCTION, onRequest);
    return ok;
}

bool Transfer::applyOwnRules()
{
    bool ok = curl_easy_setopt(curl.get(), CURLOPT_ERRORBUFFER, errorBuffer.data()) == CURLE_OK;
    for (const CURLoption option : {CURLOPT_PRIVATE, CURLOPT_WRITEDATA, CURLOPT_HEADERDATA,
                                    CURLOPT_SSL_CTX_DATA, CURLOPT_PREREQDATA}) {
        ok = curl_easy_setopt(curl.get(), option, static_cast<void*>(this)) == CURLE_OK && ok;
    }
    return ok;
}

void Transfer::begin(bool fresh)
{
    pristine = false;
    lonely = lonely || share == nullptr;
    bodyBytes = 0;
    toldBytes = 0;
    early.clear();
    paused = false;
    postponed = false;
    headerBytes = 0;
    sendings = 0;
    sent = {};
    refusal = nullptr;
    offeredSession = false;
    keptConnection = false;
    crowded = false;
    const bool single = !mayBeSentAgain();
    onlyHttp11 = single || repeats.lost > 0 || repeats.postponed > 0;
    const auto set = [this](CURLoption option, long value) {
        curl_easy_setopt(curl.get(), option, value);
    };
    // A request that must not be sent twice gets a connection of its own. A kept one could be lost without telling whether
    // the server has processed the request.
    set(CURLOPT_FRESH_CONNECT, fresh || onlyHttp11 ? 1L : 0L);
    set(CURLOPT_FORBID_REUSE, onlyHttp11 ? 1L : 0L);
    set(CURLOPT_HTTP_VERSION, onlyHttp11 ? CURL_HTTP_VERSION_1_1 : CURL_HTTP_VERSION_NONE);
    set(CURLOPT_ADDRESS_SCOPE, onlyHttp11 ? kApart : 0L);
    set(CURLOPT_SSL_SESSIONID_CACHE, repeats.session == 0 ? 1L : 0L);
    set(CURLOPT_TIMEOUT_MS, static_cast<long>(timeLeft(*this).count()));
}

std::string Transfer::resultText(CURLcode code) const
{
    if (code == CURLE_OK) {
        return {};
    }
    if (startFailure != nullptr) {
        return startFailure;
    }
    if (refusal != nullptr) {
        return refusal;
    }
    const std::string text = errorBuffer[0] != '\0' ? errorBuffer.data() : curl_easy_strerror(code);
    return text + tlsCause(curl.get(), code, text);
}

}  // namespace MZCurl
