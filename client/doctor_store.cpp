// doctor_store.cpp - the way to the store: one request, taken apart into its stages.
#include "doctor.h"
#include "platform_log.h"

#include <platform/deployment.h>
#include <platform/network.h>
#include <platform/system_info.h>

#include <curl/curl.h>
#include <openssl/ssl.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <memory>

namespace client {

namespace {

constexpr const char* CA_BUNDLE = "/opt/down/cert/ca.pem";
constexpr const char* PATH = "/billing/service/v2/country";

struct CurlFree {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
using Curl = std::unique_ptr<CURL, CurlFree>;

/// What its TLS context tells.
struct Handshake {
    bool began = false;
    bool askedForCertificate = false;  ///< the server was proven before it asked
};

/// How far a request came.
struct Attempt {
    CURLcode code = CURLE_FAILED_INIT;
    std::string error;
    std::string address;
    bool resolved = false;
    bool connected = false;
    bool secured = false;
    Handshake handshake;
    long status = 0;
};

std::size_t ignore(char*, std::size_t size, std::size_t count, void*)
{
    return size * count;
}

int onClientCertificate(SSL* ssl, X509**, EVP_PKEY**)
{
    static_cast<Handshake*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)))->askedForCertificate = true;
    return 0;  // none
}

CURLcode onContext(CURL*, void* context, void* handshake)
{
    auto* const sslContext = static_cast<SSL_CTX*>(context);
    // Only a connection that is there gets one.
    static_cast<Handshake*>(handshake)->began = true;
    SSL_CTX_set_app_data(sslContext, handshake);
    SSL_CTX_set_client_cert_cb(sslContext, onClientCertificate);
    return CURLE_OK;
}

bool reached(CURL* curl, CURLINFO time)
{
    curl_off_t microseconds = 0;
    return curl_easy_getinfo(curl, time, &microseconds) == CURLE_OK && microseconds > 0;
}

Attempt attempt(const std::string& url, double timeout)
{
    Attempt result;
    curl_global_init(CURL_GLOBAL_DEFAULT);
    const Curl curl(curl_easy_init());
    if (curl == nullptr) {
        return result;
    }
    std::array<char, CURL_ERROR_SIZE> error{};
    CURL* const handle = curl.get();
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, error.data());
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, std::lround(timeout * 1000));
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_PROXY, "");
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(handle, CURLOPT_CAINFO, CA_BUNDLE);
    curl_easy_setopt(handle, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, ignore);
    curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, onContext);
    curl_easy_setopt(handle, CURLOPT_SSL_CTX_DATA, &result.handshake);
    result.code = curl_easy_perform(handle);
    result.error = error[0] != '\0' ? error.data() : curl_easy_strerror(result.code);
    result.resolved = reached(handle, CURLINFO_NAMELOOKUP_TIME_T);
    result.connected = result.handshake.began;
    result.secured = reached(handle, CURLINFO_APPCONNECT_TIME_T);
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &result.status);
    const char* address = nullptr;
    curl_easy_getinfo(handle, CURLINFO_PRIMARY_IP, &address);
    result.address = address != nullptr ? address : "";
    return result;
}

Finding checkRoute()
{
    bool exists = false;
    const int error = connection_profile_check_default_gateway(&exists);
    if (error != 0) {
        return {
            "route", Outcome::Failed,
            "whether there is a default route cannot be read (error " + std::to_string(error) + ")",
            "see [network] default_gateway; the service answers every call with 1160003"};
    }
    if (!exists) {
        return {"route", Outcome::Failed, "there is no default route",
                "connect the device to its network; until then every call is answered with "
                "1160003"};
    }
    return {"route", Outcome::Ok, "there is a default route", ""};
}

/// What was not reached was not checked.
Finding stage(const char* name, bool before, bool reachedIt, const std::string& text,
              const std::string& error, const char* cure)
{
    if (!before) {
        return {name, Outcome::NotChecked, "the check before has failed", ""};
    }
    return reachedIt ? Finding{name, Outcome::Ok, text, ""}
                     : Finding{name, Outcome::Failed, error, cure};
}

void checkHost(Findings& findings, const std::string& host, double timeout)
{
    const Attempt made = attempt("https://" + host + PATH, timeout);
    const bool proven = made.secured || made.handshake.askedForCertificate;
    const bool answered = made.status > 0;
    findings.push_back(stage("name lookup", true, made.resolved || made.connected,
                             host + " is known", made.error,
                             "look at the name servers of the device, and at the host in "
                             "[deployment]"));
    findings.push_back(stage("TCP", made.resolved || made.connected, made.connected,
                             "connected to " + made.address, made.error,
                             "is the port in [deployment] right, does the store run, does a "
                             "firewall stand between"));
    findings.push_back(stage("TLS", made.connected, proven, "the CA bundle vouches for " + host,
                             made.error,
                             "look at the CA bundle, the clock, and the name in the server's "
                             "certificate"));
    if (!answered && made.handshake.askedForCertificate) {
        findings.push_back({"HTTP", Outcome::NotChecked,
                            "the store demands the device's certificate, which only the service "
                            "presents: see the call below",
                            ""});
        return;
    }
    findings.push_back(stage("HTTP", proven, answered, "status " + std::to_string(made.status),
                             made.error, "look at the store"));
}

}  // namespace

void checkStore(Findings& findings, const DoctorOptions& options)
{
    findings.push_back(checkRoute());
    int type = 1;  // what the service takes where the device does not say
    system_info_get_value_int(SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE, &type);
    const bool sandbox = type == 1 || type == 2;
    takeComplaint();
    const std::unique_ptr<char, decltype(&std::free)> host(
        deployment_get_host(sandbox ? DEPLOYMENT_HOST_SANDBOX : DEPLOYMENT_HOST_PRODUCTION),
        std::free);
    if (host == nullptr) {
        const std::string complaint = takeComplaint();
        const char* const key = sandbox ? "sandbox_host" : "production_host";
        findings.push_back(
            {"name lookup", Outcome::Failed,
             complaint.empty() ? std::string("[deployment] ") + key + " is not set" : complaint,
             std::string("set [deployment] ") + key + " to the store's host"});
        return;
    }
    checkHost(findings, host.get(), options.timeout);
}

}  // namespace client
