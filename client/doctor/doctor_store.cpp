// doctor_store.cpp - checks the way to the store stage by stage, with one request.
#include "base/platform_log.h"
#include "device/certificate.h"
#include "doctor.h"
#include "linux/settings/settings.h"
#include "settings/platform_library.h"
#include "store_attempt.h"

#include <platform/deployment.h>
#include <platform/network.h>
#include <platform/system_info.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <memory>

namespace client {

namespace {

/// Seconds of difference from which certificates and tokens soon fail.
constexpr double kClockSeconds = 300;
constexpr const char* kStages[] = {"name lookup", "TCP", "TLS", "HTTP", "time"};
constexpr const char* kNotReached = "the request did not come that far";

Finding checkRoute()
{
    const char* const check = "route";
    const std::string refused = "until then every call is answered with 1160003";
    const bool fileSays = platformReadsDeviceConf();
    const std::string rule =
        fileSays ? settings::text("network", "default_gateway").value_or("auto") : "auto";
    bool exists = false;
    if (fileSays && settings::isRefused("network", "default_gateway")) {
        return failed(check, "refused", whyMissing("network", "default_gateway", ""),
                      "set it to auto; " + refused);
    }
    const int error = connection_profile_check_default_gateway(&exists);
    if (error == 0 && exists) {
        return good(check, rule == "auto" ? "there is a default route"
                                          : "[network] default_gateway says " + rule +
                                                "; the kernel is not asked");
    }
    if (rule != "auto") {
        return failed(check, "off", "[network] default_gateway says " + rule,
                      "set it to auto; " + refused);
    }
    if (error != 0) {
        return failed(check, "unreadable",
                      "the routing tables cannot be read (error " + std::to_string(error) + ")",
                      "let this user open a netlink socket; " + refused);
    }
    return failed(check, "none", "there is no default route",
                  "connect the device to its network; " + refused);
}

/// @return the finding for a server certificate that was refused
Finding certificateRefused(const Server& server, const Handshake& handshake,
                           const std::string& error)
{
    const char* const check = "TLS";
    const X509* const refused = handshake.refused.get();
    const bool over = handshake.verdict == X509_V_ERR_CERT_HAS_EXPIRED;
    if (refused != nullptr && (over || handshake.verdict == X509_V_ERR_CERT_NOT_YET_VALID)) {
        return failed(check, over ? "expired" : "early",
                      "the certificate \"" + nameOf(refused) + "\" " +
                          (over ? "has expired: " : "is not valid yet: ") + validityOf(refused) +
                          ", and the clock says " + clockText(),
                      over ? "renew it at the store; if the clock is wrong, set it"
                           : "set the clock; if it is right, the store uses its certificate too "
                             "early");
    }
    if (refused != nullptr && (handshake.verdict == X509_V_ERR_HOSTNAME_MISMATCH ||
                               handshake.verdict == X509_V_ERR_IP_ADDRESS_MISMATCH)) {
        return failed(
            check, "other-name",
            "the server's certificate is for " + hostsOf(refused) + ", not for " + server.name,
            "set [deployment] " + server.key + " to a name that it is for");
    }
    const std::string issuer =
        refused != nullptr
            ? " (\"" + nameOf(refused) + "\" is signed by \"" + issuerOf(refused) + "\")"
            : "";
    return failed(check, "not-trusted", error + issuer,
                  std::string("put the authority that vouches for the store into ") + kCaBundle +
                      "; if it is there, this is not the store, or it does not send its whole "
                      "chain");
}

Finding checkTls(const Server& server, const Attempt& made)
{
    const char* const check = "TLS";
    const Handshake& handshake = made.handshake;
    if (handshake.verdict != X509_V_OK) {
        return certificateRefused(server, handshake, made.error);
    }
    if (made.secured || handshake.askedForCertificate) {
        const std::string text = "the CA bundle vouches for " + server.name;
        const int days = handshake.server != nullptr ? daysLeft(handshake.server.get()) : kFewDays;
        return days < kFewDays
                   ? warning(check, "expires", text + ", whose certificate ends: " + daysText(days),
                             "have it renewed at the store")
                   : good(check, text);
    }
    if (made.code == CURLE_SSL_CACERT_BADFILE) {
        return failed(check, "no-bundle", made.error, "mend the CA bundle, see above");
    }
    if (made.code == CURLE_OPERATION_TIMEDOUT) {
        return failed(check, "silent", made.error,
                      "look at what listens there: it takes the connection and says nothing");
    }
    return failed(
        check, "no-tls12", made.error,
        "have the store speak TLS 1.2 there, which the device's key needs; is it the right "
        "port in [deployment] " +
            server.key);
}

Finding checkHttp(const Attempt& made)
{
    const char* const check = "HTTP";
    const bool clientError = made.status >= 400 && made.status < 500;
    if (made.handshake.askedForCertificate && (!made.secured || clientError)) {
        return notChecked(check,
                          "the store demands the device's certificate, which only the service "
                          "presents: see the call below");
    }
    const std::string status = "status " + std::to_string(made.status);
    if (made.status == 0) {
        return failed(check, "silent", made.error,
                      "look at the store: it took the request and did not answer");
    }
    if (made.status >= 500) {
        return failed(check, "outage",
                      "the store answered with " + status + ": " + beginningOf(made.body),
                      "look at the store's log: the device has done its part");
    }
    return good(check, status + ", without the device's certificate and headers");
}

/// Compares this machine's clock with the store's.
Finding checkTime(const Attempt& made)
{
    const char* const check = "time";
    const time_t store = made.date.empty() ? -1 : curl_getdate(made.date.c_str(), nullptr);
    if (store < 0) {
        return notChecked(check, "the store did not say what time it is");
    }
    const double difference = std::difftime(std::time(nullptr), store);
    const std::string text = std::to_string(std::lround(std::fabs(difference))) + " s";
    if (std::fabs(difference) <= kClockSeconds) {
        return good(check, "the clock and the store's differ by " + text);
    }
    return warning(
        check, "differs",
        "the clock is " + text + (difference < 0 ? " behind" : " ahead of") + " the store's",
        "set the clock, and let it be kept (timedatectl set-ntp true)");
}

/// Adds a finding, and marks the stages behind it as not checked.
void endWith(Findings& findings, const Finding& last)
{
    findings.push_back(last);
    bool behind = false;
    for (const char* const stage : kStages) {
        if (behind) {
            findings.push_back(notChecked(stage, kNotReached));
        }
        behind = behind || last.check == stage;
    }
}

/// @return the cause, completed by a proxy that is configured: it may be the only way out
std::string withProxy(const Patient& patient, const std::string& cause)
{
    return patient.proxy.empty() ? cause
                                 : cause + "; " + patient.proxy +
                                       " names a proxy, and the service uses none: it needs a way "
                                       "of its own to the store";
}

void checkServer(Findings& findings, Patient& patient, const Server& server)
{
    const Attempt made = attempt(server, kCaBundle, patient.options.timeout);
    const bool connected = made.handshake.began || made.code == CURLE_SSL_CACERT_BADFILE;
    if (!made.resolved && !connected) {
        endWith(findings,
                failed("name lookup", patient.proxy.empty() ? "unknown" : "proxy",
                       withProxy(patient, made.error),
                       "look at the device's name servers, and at [deployment] " + server.key));
        return;
    }
    findings.push_back(good("name lookup", server.name + " is known"));
    if (!connected) {
        endWith(findings, failed("TCP", patient.proxy.empty() ? "not-connected" : "proxy",
                                 withProxy(patient, made.error),
                                 "is the store up, does a firewall stand between, is the port in "
                                 "[deployment] " +
                                     server.key + " right"));
        return;
    }
    findings.push_back(good("TCP", "connected to " + made.handshake.address));
    const Finding tls = checkTls(server, made);
    if (tls.outcome == Outcome::Failed) {
        endWith(findings, tls);
        return;
    }
    patient.storeReached = true;
    findings.push_back(tls);
    findings.push_back(checkHttp(made));
    findings.push_back(checkTime(made));
}

}  // namespace

void checkStore(Findings& findings, Patient& patient)
{
    if (patient.settingsClosed) {
        findings.push_back(settingsClosed("route"));
        for (const char* const stage : kStages) {
            findings.push_back(settingsClosed(stage));
        }
        return;
    }
    findings.push_back(checkRoute());
    int type = 1;  // what the service takes where the device does not say
    system_info_get_value_int(SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE, &type);
    const bool sandbox = type == 1 || type == 2;
    const std::unique_ptr<char, decltype(&std::free)> host(
        deployment_get_host(sandbox ? DEPLOYMENT_HOST_SANDBOX : DEPLOYMENT_HOST_PRODUCTION),
        std::free);
    const std::string complaint = takeComplaint();
    Server server{sandbox ? "sandbox_host" : "production_host", "", ""};
    if (host == nullptr) {
        endWith(findings,
                failed("name lookup", "not-set",
                       whyMissing("deployment", server.key.c_str(), complaint),
                       "set it to the store's host in " + placeOf("deployment_get_host")));
        return;
    }
    server.host = host.get();
    server.name = server.host.substr(0, server.host.find(':'));
    checkServer(findings, patient, server);
}

}  // namespace client
