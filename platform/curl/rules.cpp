// rules.cpp - the options of libcurl that hold for every transfer, and for each of its attempts.
#include "callbacks.h"
#include "repeat.h"
#include "tls.h"
#include "transfer.h"

namespace MZCurl {
namespace {

// libcurl 7.88 keeps the connections of a host in one bundle. Once one of them speaks HTTP/2 it puts requests onto any of
// them that are in use, those of HTTP/1.1 as well: the answers would be swapped. The scope is part of the bundle's name, and
// the kernel looks at it only for link-local addresses.
constexpr long kApart = 1;

}  // namespace

bool Transfer::applyRules()
{
    CURL* const handle = curl.get();
    bool ok = true;
    const auto set = [&](CURLoption option, auto value) {
        ok = curl_easy_setopt(handle, option, value) == CURLE_OK && ok;
    };
    // The process is threaded: no signal for a time-out, and no wait for a name look-up that is
    // stuck when its transfer goes.
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_QUICK_EXIT, 1L);
    // Nothing from outside steers a transfer: no proxy, no password file, no redirect.
    set(CURLOPT_PROTOCOLS_STR, "https");
    set(CURLOPT_PROXY, "");
    set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
    set(CURLOPT_FOLLOWLOCATION, 0L);
    // An older version would be taken from a server that has nothing newer: no token goes over it.
    set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    // Of TLS 1.2 the suites of fresh keys and authenticated encryption; all of TLS 1.3 are such.
    set(CURLOPT_SSL_CIPHER_LIST, "ECDHE+AESGCM:ECDHE+CHACHA20:DHE+AESGCM:DHE+CHACHA20:!aNULL:!PSK");
    // Trust is what CAINFO names and nothing else: the distribution's bundle and folder would be
    // trusted beside it. The file is read for each new connection, so that a new one counts, unless
    // somebody watches it.
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
    // A request that must not be sent twice has a connection of its own: over a kept one it could be lost without a way
    // to tell whether the server has processed it.
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
