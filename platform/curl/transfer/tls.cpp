// tls.cpp - prepares TLS contexts: runs the caller's callback and completes its result.
#include "tls.h"

#include "attempt.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <ctime>
#include <string_view>

namespace MZCurl {
namespace {

bool hasCredentials(const SSL_CTX* context)
{
    // OpenSSL presents a certificate only together with its key.
    return SSL_CTX_get0_certificate(context) != nullptr &&
           SSL_CTX_get0_privatekey(context) != nullptr;
}

/// Limits signatures to PKCS#1 padding, the only one of the key store. OpenSSL would choose PSS and pad by itself: TLS 1.2
/// prefers PSS, and TLS 1.3 has nothing else.
void signWithPkcs1(SSL_CTX* context)
{
    SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set1_client_sigalgs_list(context, "RSA+SHA256:RSA+SHA384:RSA+SHA512");
}

/// Lets the server send session tickets: libcurl turns them off. A server without a session cache of its own, such as one of
/// many behind one name, would otherwise cost a signature for each connection.
void takeTickets(SSL_CTX* context)
{
    SSL_CTX_clear_options(context, SSL_OP_NO_TICKET);
}

int attemptIndex()
{
    static const int index =
        CRYPTO_get_ex_new_index(CRYPTO_EX_INDEX_SSL_CTX, 0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

/// Called at the beginning of the handshake. Notes whether the handshake offers a session, and limits the protocols (ALPN) to
/// what the transfer may speak: libcurl 8 sets its own list after it has handed out the context. Runs once: at a later
/// handshake of the connection the transfer may not exist any more.
void onHandshake(const SSL* ssl, int where, int /*value*/)
{
    constexpr unsigned char kOnlyHttp11[] = "\x08http/1.1";
    if ((where & SSL_CB_HANDSHAKE_START) == 0) {
        return;
    }
    SSL_CTX* const context = SSL_get_SSL_CTX(ssl);
    SSL_CTX_set_info_callback(context, nullptr);
    Attempt& attempt = *static_cast<Attempt*>(SSL_CTX_get_ex_data(context, attemptIndex()));
    attempt.offeredSession = SSL_get_session(ssl) != nullptr;
    if (attempt.onlyHttp11) {
        SSL_set_alpn_protos(const_cast<SSL*>(ssl), kOnlyHttp11, sizeof kOnlyHttp11 - 1);
    }
}

void watchHandshake(SSL_CTX* context, Attempt& attempt)
{
    if (SSL_CTX_set_ex_data(context, attemptIndex(), &attempt) == 1) {
        SSL_CTX_set_info_callback(context, onHandshake);
    }
}

/// For a transfer without a client certificate, which a server may still accept: other transfers must not use its session or
/// its connection. HTTP/2 is off, since its connections are shared while in use.
void useOnce(Attempt& attempt, SSL_CTX* context)
{
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
    attempt.onlyHttp11 = true;
    attempt.anonymous = true;
    curl_easy_setopt(attempt.curl.get(), CURLOPT_FORBID_REUSE, 1L);
}

}  // namespace

CURLcode onSslContext(CURL* /*curl*/, void* context, void* pointer)
{
    const TlsErrorScope errors;
    Attempt& attempt = *static_cast<Attempt*>(pointer);
    auto* const sslContext = static_cast<SSL_CTX*>(context);
    watchHandshake(sslContext, attempt);
    if (attempt.options.sslContext == nullptr) {
        return CURLE_OK;
    }
    try {
        attempt.options.sslContext(context, attempt.options.sslContextData);
    } catch (...) {
        // The context is completed with what the callback has installed so far.
    }
    if (hasCredentials(sslContext)) {
        signWithPkcs1(sslContext);
        takeTickets(sslContext);
    } else {
        useOnce(attempt, sslContext);
    }
    return CURLE_OK;
}

void* tlsOf(CURL* curl)
{
    const curl_tlssessioninfo* session = nullptr;
    const bool known =
        curl_easy_getinfo(curl, CURLINFO_TLS_SSL_PTR, &session) == CURLE_OK && session != nullptr;
    return known && session->backend == CURLSSLBACKEND_OPENSSL ? session->internals : nullptr;
}

bool speaksHttp2(const void* ssl)
{
    const unsigned char* name = nullptr;
    unsigned int length = 0;
    if (ssl != nullptr) {
        SSL_get0_alpn_selected(static_cast<const SSL*>(ssl), &name, &length);
    }
    return std::string_view(reinterpret_cast<const char*>(name), length) == "h2";
}

void endInOrder(void* ssl)
{
    if (ssl != nullptr) {
        SSL_set_shutdown(static_cast<SSL*>(ssl), SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
    }
}

std::string tlsCause(CURL* curl, CURLcode code, const std::string& text)
{
    // Only the device's key makes signatures here. OpenSSL has no error of its own for a signature that failed: it reports
    // the last error of its queue.
    if (code == CURLE_SSL_CONNECT_ERROR &&
        (text.find("EVP lib") != std::string::npos ||
         text.find("DSO support routines") != std::string::npos)) {
        return " (the device's key did not sign: a line of the key store before this one says why)";
    }
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
    // libcurl's text for this alert of the server is the same as for a server certificate that failed the verification.
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
