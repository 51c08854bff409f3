// tls.cpp - the bridge between libcurl's TLS context callback and the wrapper's.
#include "tls.h"

#include "transfer.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <ctime>

namespace MZCurl {
namespace {

bool hasCredentials(const SSL_CTX* context)
{
    // A certificate without its key is not presented.
    return SSL_CTX_get0_certificate(context) != nullptr &&
           SSL_CTX_get0_privatekey(context) != nullptr;
}

/// The key store pads by itself, as PKCS#1 signatures are padded. Left alone, the library would
/// choose PSS and do the padding: TLS 1.3 has nothing else, and TLS 1.2 prefers it.
void signWithPkcs1(SSL_CTX* context)
{
    SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set1_client_sigalgs_list(context, "RSA+SHA256:RSA+SHA384:RSA+SHA512");
}

/// libcurl asks servers for no tickets, whatever the reason was once. Where the sessions are kept by
/// nobody else, as in a store of many servers, every connection would cost a signature.
void takeTickets(SSL_CTX* context)
{
    SSL_CTX_clear_options(context, SSL_OP_NO_TICKET);
}

/// A server that only asks for a certificate lets this transfer in. Nothing of it may serve another:
/// no session, no connection that is kept, and no HTTP/2, whose connections are shared while in use.
void useOnce(CURL* curl, SSL_CTX* context)
{
    constexpr unsigned char kOnlyHttp11[] = "\x08http/1.1";
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
    SSL_CTX_set_alpn_protos(context, kOnlyHttp11, sizeof kOnlyHttp11 - 1);
    curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 1L);
}

}  // namespace

CURLcode onSslContext(CURL* curl, void* context, void* pointer)
{
    const TlsErrorScope errors;
    const Transfer& transfer = *static_cast<Transfer*>(pointer);
    try {
        transfer.sslContext(context, transfer.sslContextData);
    } catch (...) {
        // The context is completed for what was installed before.
    }
    auto* const sslContext = static_cast<SSL_CTX*>(context);
    if (hasCredentials(sslContext)) {
        signWithPkcs1(sslContext);
        takeTickets(sslContext);
    } else {
        useOnce(curl, sslContext);
    }
    return CURLE_OK;
}

std::string tlsCause(CURL* curl, CURLcode code, const std::string& text)
{
    long verdict = X509_V_OK;
    if (code != CURLE_PEER_FAILED_VERIFICATION ||
        curl_easy_getinfo(curl, CURLINFO_SSL_VERIFYRESULT, &verdict) != CURLE_OK) {
        return {};
    }
    if (verdict == X509_V_ERR_CERT_NOT_YET_VALID || verdict == X509_V_ERR_CERT_HAS_EXPIRED) {
        const std::time_t now = std::time(nullptr);
        std::tm parts{};
        char said[32] = "";
        std::strftime(said, sizeof said, "%Y-%m-%d %H:%M UTC", gmtime_r(&now, &parts));
        return std::string(" (the clock of this device says ") + said + ")";
    }
    // Its words for this alert are those for a server that failed the verification.
    return text == "SSL certificate verification failed"
               ? " (the server says that the certificate of this device has expired)"
               : "";
}

TlsErrorScope::TlsErrorScope()
{
    ERR_set_mark();
}

TlsErrorScope::~TlsErrorScope()
{
    ERR_pop_to_mark();
}

}  // namespace MZCurl
