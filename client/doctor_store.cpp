// doctor_store.cpp - the way to the store: one request, taken apart into its stages.
#include "certificate.h"
#include "doctor.h"
#include "platform_log.h"
#include "settings.h"

#include <platform/deployment.h>
#include <platform/network.h>
#include <platform/system_info.h>

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <memory>

namespace client {

namespace {

constexpr const char* PATH = "/billing/service/v2/country";

struct CurlFree {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
using Curl = std::unique_ptr<CURL, CurlFree>;

/// The server that the settings name.
struct Server {
    std::string key;   ///< of [deployment]
    std::string host;  ///< with its port, where it has one
    std::string name;  ///< without
};

/// What its TLS context tells.
struct Handshake {
    std::string name;  ///< that the server must have
    bool began = false;
    bool askedForCertificate = false;  ///< the server was proven before it asked
    int verdict = X509_V_OK;
    Certificate refused;  ///< what the verdict is on
};

/// How far a request came.
struct Attempt {
    CURLcode code = CURLE_FAILED_INIT;
    std::string error;
    std::string address;
    bool resolved = false;
    bool secured = false;
    Handshake handshake;
    long status = 0;
};

std::size_t ignore(char*, std::size_t size, std::size_t count, void*)
{
    return size * count;
}

Handshake& handshakeOf(SSL* ssl)
{
    return *static_cast<Handshake*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
}

int onClientCertificate(SSL* ssl, X509**, EVP_PKEY**)
{
    handshakeOf(ssl).askedForCertificate = true;
    return 0;  // none
}

int onVerify(int good, X509_STORE_CTX* store)
{
    if (good == 0) {
        const void* const ssl =
            X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx());
        Handshake& handshake = handshakeOf(static_cast<SSL*>(const_cast<void*>(ssl)));
        handshake.verdict = X509_STORE_CTX_get_error(store);
        X509* const certificate = X509_STORE_CTX_get_current_cert(store);
        if (certificate != nullptr && X509_up_ref(certificate) == 1) {
            handshake.refused.reset(certificate);
        }
    }
    return good;
}

CURLcode onContext(CURL*, void* context, void* pointer)
{
    auto* const sslContext = static_cast<SSL_CTX*>(context);
    auto* const handshake = static_cast<Handshake*>(pointer);
    // Only a connection that is there gets a context.
    handshake->began = true;
    SSL_CTX_set_app_data(sslContext, handshake);
    SSL_CTX_set_client_cert_cb(sslContext, onClientCertificate);
    SSL_CTX_set_verify(sslContext, SSL_VERIFY_PEER, onVerify);
    // libcurl looks at the name after the handshake only, and a store that demands a certificate
    // ends it before.
    X509_VERIFY_PARAM* const wanted = SSL_CTX_get0_param(sslContext);
    const char* const name = handshake->name.c_str();
    const bool set = X509_VERIFY_PARAM_set1_ip_asc(wanted, name) == 1 ||
                     X509_VERIFY_PARAM_set1_host(wanted, name, 0) == 1;
    return set ? CURLE_OK : CURLE_OUT_OF_MEMORY;
}

Attempt attempt(const Server& server, double timeout)
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
    curl_easy_setopt(handle, CURLOPT_URL, ("https://" + server.host + PATH).c_str());
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, error.data());
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, std::lround(timeout * 1000));
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    // A name look-up that hangs would be waited for at the end.
    curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);
    curl_easy_setopt(handle, CURLOPT_PROXY, "");
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "https");
    // What the service speaks once it has a certificate: the key store signs for nothing newer.
    curl_easy_setopt(handle, CURLOPT_SSLVERSION,
                     static_cast<long>(CURL_SSLVERSION_TLSv1_2) | CURL_SSLVERSION_MAX_TLSv1_2);
    // Nothing is in it either way, and libcurl would wait for a pipe.
    curl_easy_setopt(handle, CURLOPT_CAINFO, hasAnEnd(CA_BUNDLE) ? CA_BUNDLE : "/dev/null");
    curl_easy_setopt(handle, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, ignore);
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
    const char* address = nullptr;
    curl_easy_getinfo(handle, CURLINFO_PRIMARY_IP, &address);
    result.address = address != nullptr ? address : "";
    return result;
}

Finding checkRoute()
{
    const std::string refused = "until then every call is answered with 1160003";
    const std::string rule = settings::text("network", "default_gateway").value_or("auto");
    bool exists = false;
    if (const std::string missing = whyMissing("network", "default_gateway");
        settings::isRefused("network", "default_gateway")) {
        return {"route", Outcome::Failed, missing, "set it to auto; " + refused};
    }
    const int error = connection_profile_check_default_gateway(&exists);
    if (error == 0 && exists) {
        return {"route", Outcome::Ok,
                rule == "auto"
                    ? "there is a default route"
                    : "[network] default_gateway says " + rule + "; nobody asks the kernel",
                ""};
    }
    if (rule != "auto") {
        return {"route", Outcome::Failed, "[network] default_gateway says " + rule,
                "set it to auto; " + refused};
    }
    if (error != 0) {
        return {"route", Outcome::Failed,
                "the routing tables cannot be read (error " + std::to_string(error) + ")",
                "let this user open a netlink socket; " + refused};
    }
    return {"route", Outcome::Failed, "there is no default route",
            "connect the device to its network; " + refused};
}

Finding notReached(const char* check)
{
    return {check, Outcome::NotChecked, "the request did not come that far", ""};
}

/// Why the server's certificate was refused.
Finding certificateRefused(const Server& server, const Handshake& handshake,
                           const std::string& error)
{
    const X509* const refused = handshake.refused.get();
    const bool over = handshake.verdict == X509_V_ERR_CERT_HAS_EXPIRED;
    if (refused != nullptr && (over || handshake.verdict == X509_V_ERR_CERT_NOT_YET_VALID)) {
        return {"TLS", Outcome::Failed,
                "the certificate \"" + nameOf(refused) + "\" " +
                    (over ? "has expired: " : "is not valid yet: ") + validityOf(refused) +
                    ", and the clock says " + clockText(),
                over ? "renew it at the store; if the clock is wrong, set it"
                     : "set the clock; if it is right, the store uses its certificate too early"};
    }
    if (refused != nullptr && (handshake.verdict == X509_V_ERR_HOSTNAME_MISMATCH ||
                               handshake.verdict == X509_V_ERR_IP_ADDRESS_MISMATCH)) {
        return {"TLS", Outcome::Failed,
                "the server's certificate is for " + hostsOf(refused) + ", not for " + server.name,
                "set [deployment] " + server.key + " to a name that it is for"};
    }
    return {"TLS", Outcome::Failed, error,
            std::string("put the authority that vouches for the store into ") + CA_BUNDLE +
                "; if it is there, this is not the store"};
}

Finding checkTls(const Server& server, const Attempt& made)
{
    const Handshake& handshake = made.handshake;
    if (handshake.verdict != X509_V_OK) {
        return certificateRefused(server, handshake, made.error);
    }
    if (made.secured || handshake.askedForCertificate) {
        return {"TLS", Outcome::Ok, "the CA bundle vouches for " + server.name, ""};
    }
    if (made.code == CURLE_SSL_CACERT_BADFILE) {
        return {"TLS", Outcome::Failed, made.error, "mend the CA bundle, see above"};
    }
    if (made.code == CURLE_OPERATION_TIMEDOUT) {
        return {"TLS", Outcome::Failed, made.error,
                "look at what listens there: it takes the connection and says nothing"};
    }
    return {"TLS", Outcome::Failed, made.error,
            "have the store speak TLS 1.2 there, which the device's key needs; is it the right "
            "port in [deployment] " +
                server.key};
}

Finding checkHttp(const Attempt& made)
{
    const bool clientError = made.status >= 400 && made.status < 500;
    if (made.handshake.askedForCertificate && (!made.secured || clientError)) {
        return {"HTTP", Outcome::NotChecked,
                "the store demands the device's certificate, which only the service presents: see "
                "the call below",
                ""};
    }
    const std::string status = "status " + std::to_string(made.status);
    if (made.status == 0) {
        return {"HTTP", Outcome::Failed, made.error,
                "look at the store: it took the request and did not answer"};
    }
    if (made.status >= 500) {
        return {"HTTP", Outcome::Failed, "the store answered with " + status,
                "look at the store's log: the device has done its part"};
    }
    return {"HTTP", Outcome::Ok, status + ", without the device's certificate and headers", ""};
}

void checkServer(Findings& findings, const Server& server, double timeout)
{
    const Attempt made = attempt(server, timeout);
    const bool connected = made.handshake.began || made.code == CURLE_SSL_CACERT_BADFILE;
    if (!made.resolved && !connected) {
        findings.push_back(
            {"name lookup", Outcome::Failed, made.error,
             "look at the device's name servers, and at [deployment] " + server.key});
        findings.push_back(notReached("TCP"));
        findings.push_back(notReached("TLS"));
        findings.push_back(notReached("HTTP"));
        return;
    }
    findings.push_back({"name lookup", Outcome::Ok, server.name + " is known", ""});
    if (!connected) {
        findings.push_back({"TCP", Outcome::Failed, made.error,
                            "is the store up, does a firewall stand between, is the port in "
                            "[deployment] " +
                                server.key + " right"});
        findings.push_back(notReached("TLS"));
        findings.push_back(notReached("HTTP"));
        return;
    }
    findings.push_back({"TCP", Outcome::Ok, "connected to " + made.address, ""});
    findings.push_back(checkTls(server, made));
    findings.push_back(findings.back().outcome == Outcome::Ok ? checkHttp(made)
                                                              : notReached("HTTP"));
}

}  // namespace

void checkStore(Findings& findings, const DoctorOptions& options)
{
    findings.push_back(checkRoute());
    int type = 1;  // what the service takes where the device does not say
    system_info_get_value_int(SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE, &type);
    const bool sandbox = type == 1 || type == 2;
    const std::unique_ptr<char, decltype(&std::free)> host(
        deployment_get_host(sandbox ? DEPLOYMENT_HOST_SANDBOX : DEPLOYMENT_HOST_PRODUCTION),
        std::free);
    takeComplaint();
    Server server{sandbox ? "sandbox_host" : "production_host", "", ""};
    if (host == nullptr) {
        findings.push_back({"name lookup", Outcome::Failed,
                            whyMissing("deployment", server.key.c_str()),
                            "set it to the store's host in " + settings::filePath()});
        findings.push_back(notReached("TCP"));
        findings.push_back(notReached("TLS"));
        findings.push_back(notReached("HTTP"));
        return;
    }
    server.host = host.get();
    server.name = server.host.substr(0, server.host.find(':'));
    checkServer(findings, server, options.timeout);
}

}  // namespace client
