// store_attempt.cpp - makes one request to the store and records its stages.
#include "store_attempt.h"

#include <glib.h>
#include <netdb.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

namespace client {

namespace {

constexpr std::size_t kBodyKept = 4096;
constexpr const char* kPath = "/billing/service/v2/country";

struct CurlFree {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
using Curl = std::unique_ptr<CURL, CurlFree>;

std::size_t keepBody(char* text, std::size_t size, std::size_t count, void* pointer)
{
    std::string& body = static_cast<Attempt*>(pointer)->body;
    body.append(text, std::min(size * count, kBodyKept - std::min(kBodyKept, body.size())));
    return size * count;
}

std::size_t keepDate(char* text, std::size_t size, std::size_t count, void* pointer)
{
    const std::string line(text, size * count);
    if (g_ascii_strncasecmp(line.c_str(), "Date:", 5) == 0) {
        static_cast<Attempt*>(pointer)->date = line.substr(5);
    }
    return size * count;
}

Handshake& handshakeOf(SSL* ssl)
{
    return *static_cast<Handshake*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
}

int onClientCertificate(SSL* ssl, X509**, EVP_PKEY**)
{
    handshakeOf(ssl).askedForCertificate = true;
    return 0;  // no certificate
}

int onVerify(int good, X509_STORE_CTX* store)
{
    const void* const ssl = X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx());
    Handshake& handshake = handshakeOf(static_cast<SSL*>(const_cast<void*>(ssl)));
    X509* const server = X509_STORE_CTX_get0_cert(store);
    if (handshake.server == nullptr && server != nullptr && X509_up_ref(server) == 1) {
        handshake.server.reset(server);
    }
    if (good == 0) {
        handshake.verdict = X509_STORE_CTX_get_error(store);
        X509* const certificate = X509_STORE_CTX_get_current_cert(store);
        if (certificate != nullptr && X509_up_ref(certificate) == 1) {
            handshake.refused.reset(certificate);
        }
    }
    return good;
}

curl_socket_t onSocket(void* pointer, curlsocktype, curl_sockaddr* wanted)
{
    const curl_socket_t made =
        socket(wanted->family, wanted->socktype | SOCK_CLOEXEC, wanted->protocol);
    if (made >= 0) {
        static_cast<Handshake*>(pointer)->sockets.push_back(made);
    }
    return made;
}

/// @return the peer's address of the connected socket; empty when none is connected
std::string peerOf(const std::vector<curl_socket_t>& sockets)
{
    for (const curl_socket_t socket : sockets) {
        sockaddr_storage peer{};
        socklen_t size = sizeof peer;
        char text[NI_MAXHOST] = "";
        if (getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
            getnameinfo(reinterpret_cast<sockaddr*>(&peer), size, text, sizeof text, nullptr, 0,
                        NI_NUMERICHOST) == 0) {
            return text;
        }
    }
    return "";
}

CURLcode onContext(CURL*, void* context, void* pointer)
{
    auto* const sslContext = static_cast<SSL_CTX*>(context);
    auto* const handshake = static_cast<Handshake*>(pointer);
    // A context is made only after TCP is connected.
    handshake->began = true;
    // Kept here: newer versions of libcurl forget the address of a connection that fails.
    handshake->address = peerOf(handshake->sockets);
    SSL_CTX_set_app_data(sslContext, handshake);
    SSL_CTX_set_client_cert_cb(sslContext, onClientCertificate);
    SSL_CTX_set_verify(sslContext, SSL_VERIFY_PEER, onVerify);
    // OpenSSL checks the name during the handshake: libcurl would check it afterwards, and a store that demands a
    // certificate ends the handshake first.
    X509_VERIFY_PARAM* const wanted = SSL_CTX_get0_param(sslContext);
    const char* const name = handshake->name.c_str();
    const bool set = X509_VERIFY_PARAM_set1_ip_asc(wanted, name) == 1 ||
                     X509_VERIFY_PARAM_set1_host(wanted, name, 0) == 1;
    return set ? CURLE_OK : CURLE_OUT_OF_MEMORY;
}

}  // namespace

Attempt attempt(const Server& server, const char* bundle, double timeout)
{
    Attempt result;
    result.handshake.name = server.name;
    curl_global_init(CURL_GLOBAL_DEFAULT);
    const Curl curl(curl_easy_init());
    if (curl == nullptr) {
        return result;
    }
    std::array<char, CURL_ERROR_SIZE> error{};
    CURL* const handle = curl.get();
    curl_easy_setopt(handle, CURLOPT_URL, ("https://" + server.host + kPath).c_str());
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, error.data());
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, std::lround(timeout * 1000));
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    // Without this libcurl would wait for a stuck name look-up when it ends.
    curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);
    curl_easy_setopt(handle, CURLOPT_PROXY, "");
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "https");
    // As the service with a certificate: the key store has no signatures for TLS 1.3.
    curl_easy_setopt(handle, CURLOPT_SSLVERSION,
                     static_cast<long>(CURL_SSLVERSION_TLSv1_2) | CURL_SSLVERSION_MAX_TLSv1_2);
    // A file that might never end is replaced by an empty one: libcurl would read it for ever.
    curl_easy_setopt(handle, CURLOPT_CAINFO, hasAnEnd(bundle) ? bundle : "/dev/null");
    curl_easy_setopt(handle, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, keepBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &result);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, keepDate);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &result);
    curl_easy_setopt(handle, CURLOPT_OPENSOCKETFUNCTION, onSocket);
    curl_easy_setopt(handle, CURLOPT_OPENSOCKETDATA, &result.handshake);
    curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, onContext);
    curl_easy_setopt(handle, CURLOPT_SSL_CTX_DATA, &result.handshake);
    result.code = curl_easy_perform(handle);
    result.error = error[0] != '\0' ? error.data() : curl_easy_strerror(result.code);
    curl_off_t time = 0;
    result.resolved =
        curl_easy_getinfo(handle, CURLINFO_NAMELOOKUP_TIME_T, &time) == CURLE_OK && time > 0;
    result.secured =
        curl_easy_getinfo(handle, CURLINFO_APPCONNECT_TIME_T, &time) == CURLE_OK && time > 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &result.status);
    return result;
}

}  // namespace client
