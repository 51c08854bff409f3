// rules.cpp - sets libcurl's options.
#include "rules.h"

#include "callbacks.h"
#include "tls.h"
#include "url.h"

#include <new>
#include <string>
#include <string_view>

namespace MZCurl {
namespace {

// libcurl 7.88 keeps the connections of a host in one bundle. Once one of them speaks HTTP/2, libcurl puts requests onto any
// connection in use, HTTP/1.1 included, and the answers would be swapped. The address scope separates bundles, and the
// kernel uses it for link-local addresses only.
constexpr long kApart = 1;

/// Sets options of one handle, and remembers whether each was accepted.
class Setter {
public:
    explicit Setter(CURL* curl) : m_curl(curl) {}

    template <class Value>
    void operator()(CURLoption option, Value value)
    {
        ok = curl_easy_setopt(m_curl, option, value) == CURLE_OK && ok;
    }

    /// Leaves libcurl's default for an empty text: it would take "" for the name of a file.
    void text(CURLoption option, const std::string& value)
    {
        if (!value.empty()) {
            (*this)(option, value.c_str());
        }
    }

    bool ok = true;

private:
    CURL* m_curl;
};

void setRules(Setter& set)
{
    // For a process with threads: no signal for a time-out, and no wait for a stuck name look-up when its transfer ends.
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_QUICK_EXIT, 1L);
    // No proxy, password file or redirect may influence a transfer.
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
    set(CURLOPT_SOCKOPTFUNCTION, onSocket);
    set(CURLOPT_PREREQFUNCTION, onRequest);
}

void setOwner(Setter& set, Attempt& attempt)
{
    set(CURLOPT_ERRORBUFFER, attempt.errorBuffer.data());
    for (const CURLoption option :
         {CURLOPT_PRIVATE, CURLOPT_WRITEDATA, CURLOPT_HEADERDATA, CURLOPT_SSL_CTX_DATA,
          CURLOPT_SOCKOPTDATA, CURLOPT_PREREQDATA}) {
        set(option, static_cast<void*>(&attempt));
    }
}

/// libcurl 7.88 writes a URL three times for each request, at 85 instructions a character. A target of its own is copied.
void setUrl(Setter& set, const std::string& url)
{
    const std::string_view target = targetOf(url);
    if (target.empty()) {
        set.text(CURLOPT_URL, url);
        return;
    }
    set(CURLOPT_URL, std::string(startOf(url)).c_str());
    set(CURLOPT_REQUEST_TARGET, target.data());  // it ends where the URL ends, with a NUL
}

void setOptions(Setter& set, const Options& options)
{
    set(CURLOPT_PROTOCOLS_STR, options.verifyPeer != 0 ? "https" : "http,https");
    setUrl(set, options.url);
    if (options.sendsBody) {
        set(CURLOPT_POST, 1L);
        set(CURLOPT_POSTFIELDSIZE_LARGE, options.bodySize);
        if (options.body != nullptr) {
            set(CURLOPT_POSTFIELDS, options.body);
        }
    }
    set.text(CURLOPT_CUSTOMREQUEST, options.method);
    set(CURLOPT_HTTPHEADER, options.headers.list());
    set(CURLOPT_CONNECTTIMEOUT, options.connectTimeout);
    set.text(CURLOPT_CAINFO, options.caFile);
    set.text(CURLOPT_SSLCERT, options.certificate);
    set.text(CURLOPT_SSLCERTTYPE, options.certificateType);
    set.text(CURLOPT_SSLKEY, options.key);
    set.text(CURLOPT_SSLKEYTYPE, options.keyType);
    set(CURLOPT_SSL_VERIFYHOST, options.verifyHost);
    set(CURLOPT_SSL_VERIFYPEER, options.verifyPeer);
}

}  // namespace

Attempt::~Attempt()
{
    if (curl != nullptr && !unshared) {
        curl_easy_reset(curl.get());
        keepHandle(std::move(curl));
    }
}

std::unique_ptr<Attempt> prepare(const Options& options, Transfer& transfer, Performer& performer)
{
    std::unique_ptr<Attempt> attempt(new (std::nothrow) Attempt(options, transfer, performer));
    if (attempt == nullptr) {
        return nullptr;
    }
    attempt->curl = takeHandle();
    if (attempt->curl == nullptr) {
        attempt->curl.reset(curl_easy_init());
    }
    if (attempt->curl == nullptr) {
        return nullptr;
    }
    Setter set(attempt->curl.get());
    setRules(set);
    setOwner(set, *attempt);
    setOptions(set, options);
    return set.ok ? std::move(attempt) : nullptr;
}

void begin(Attempt& attempt, const Conditions& conditions)
{
    attempt.unshared = attempt.unshared || attempt.share == nullptr;
    attempt.bodyBytes = 0;
    attempt.toldBytes = 0;
    attempt.early.clear();
    attempt.postponed = false;
    attempt.headerBytes = 0;
    attempt.sendings = 0;
    attempt.sent = {};
    attempt.refusal = nullptr;
    attempt.use = {};
    attempt.offeredSession = false;
    attempt.onlyHttp11 = conditions.onlyHttp11;
    const bool apart = conditions.onlyHttp11;
    Setter set(attempt.curl.get());
    // A request that must not be sent twice gets a connection of its own. A kept one could be lost without telling whether
    // the server has processed the request.
    set(CURLOPT_FRESH_CONNECT, conditions.freshConnection || apart ? 1L : 0L);
    set(CURLOPT_FORBID_REUSE, apart ? 1L : 0L);
    set(CURLOPT_HTTP_VERSION, apart ? CURL_HTTP_VERSION_1_1 : CURL_HTTP_VERSION_NONE);
    set(CURLOPT_ADDRESS_SCOPE, apart ? kApart : 0L);
    set(CURLOPT_SSL_SESSIONID_CACHE, conditions.offersSession ? 1L : 0L);
    set(CURLOPT_TIMEOUT_MS, static_cast<long>(conditions.timeLeft.count()));
}

}  // namespace MZCurl
