// doctor_request.cpp - makes the service's own request with the service's code in this process: the daemon's answer leaves
// out the HTTP status and the reason of a failed handshake.
#include "BillingHttpConnector.h"
#include "BillingHttpRequest.h"
#include "base/platform_log.h"
#include "base/text.h"
#include "device/certificate.h"
#include "doctor.h"

#include <glib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace client {

namespace {

constexpr const char* kCheck = "request";
constexpr std::size_t kShown = 100;

/// The result of the request. The connector's worker may write here until the connector is destroyed.
struct Exchange {
    std::mutex lock;
    std::condition_variable changed;
    bool over = false;
    bool whole = false;  ///< the store answered, with any HTTP status
    std::string body;
};

/// What the service's log says about the request.
struct Verdict {
    bool answered = false;
    bool inTime = true;
    long status = 0;
    std::string number;  ///< libcurl's, of a transfer that failed
    std::string error;
    std::string body;
};

void onResponse(bool success, std::string& body, void* pointer)
{
    auto* const exchange = static_cast<Exchange*>(pointer);
    const std::lock_guard<std::mutex> hold(exchange->lock);
    exchange->whole = success;
    exchange->body = body;
    exchange->over = true;
    exchange->changed.notify_all();
}

/// @return the part of a record between two marks; empty when it lacks them
std::string between(const std::string& record, const std::string& before, const std::string& after)
{
    const std::size_t begin = record.rfind(before);
    if (begin == std::string::npos) {
        return "";
    }
    const std::size_t from = begin + before.size();
    const std::size_t end = record.find(after, from);
    return record.substr(from, end == std::string::npos ? end : end - from);
}

void readRecords(Verdict& verdict)
{
    for (const std::string& record : records()) {
        if (record.rfind("transfer ", 0) == 0) {
            const std::string status = between(record, ", HTTP ", ",");
            verdict.status = std::strtol(status.c_str(), nullptr, 10);
        }
        const std::string error = between(record, "ErrMsg = ", "!\033");
        if (!error.empty()) {
            verdict.number = between(record, "ErrorCode = ", ";");
            verdict.error = error;
        }
    }
}

/// Runs the daemon's steps: connector with its worker, device's key, request, transfer.
Verdict ask(double seconds)
{
    Verdict verdict;
    keepRecords();
    auto* const connector = BillingInstance<CHttpConnector>();
    if (connector == nullptr || !connector->Create()) {
        verdict.error = "the service's worker could not be started";
        return verdict;
    }
    Exchange exchange;
    CBillingHttpRequest request;
    std::string unused;
    const bool taken = request.RequestCheckServerAvailability(unused, onResponse, &exchange);
    if (taken) {
        std::unique_lock<std::mutex> hold(exchange.lock);
        verdict.inTime = exchange.changed.wait_for(hold, std::chrono::duration<double>(seconds),
                                                   [&exchange] { return exchange.over; });
        verdict.answered = exchange.whole;
        verdict.body = exchange.body;
    }
    connector->Destroy();
    readRecords(verdict);
    if (!taken && verdict.error.empty()) {
        verdict.error = "the request was refused";
    }
    return verdict;
}

bool holds(const std::string& text, const char* part)
{
    return text.find(part) != std::string::npos;
}

/// @return the finding for an exchange that was not completed
Finding notAnswered(const Verdict& verdict)
{
    const std::string& error = verdict.error;
    if (!verdict.inTime) {
        return failed(kCheck, "slow",
                      "the store took the device's request and did not answer in time",
                      "look at the store, or wait longer with --timeout (a call may take 90 s)");
    }
    if (holds(error, "unknown ca") || holds(error, "bad certificate") ||
        holds(error, "certificate unknown")) {
        const PemFile file = readPem(places::kDeviceCertificate);
        const std::string issuer =
            file.certificates.empty() ? "?" : issuerOf(file.certificates.front().get());
        return failed(
            kCheck, "authority",
            "the store does not take the device's certificate, which \"" + issuer +
                "\" has signed: " + error,
            "have the store trust \"" + issuer +
                "\", with every authority above it: the service sends its own certificate "
                "alone; or install a certificate that the store's authority has signed");
    }
    if (holds(error, "certificate expired") ||
        holds(error, "certificate of this device has expired")) {
        return failed(kCheck, "expired",
                      "the store takes the device's certificate for expired: " + error,
                      "install a new one (billing-provision install); if it is new, restart the "
                      "service");
    }
    if (verdict.number.empty()) {
        return failed(kCheck, "transfer", error.empty() ? "the transfer failed" : error,
                      "mend what failed above; if nothing did, the service's log says more");
    }
    const std::string number = "ErrorCode = " + verdict.number;
    return failed(kCheck, "transfer", number + ": " + error,
                  "see " + number +
                      " in TROUBLESHOOTING.md, which the sources and the package billing-service "
                      "have, and the store's log");
}

}  // namespace

std::string oddityOf(const std::string& body)
{
    const std::size_t begin = body.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) {
        return "nothing";
    }
    if (body[begin] == '<') {
        return "HTML or XML";
    }
    return isJson(body) ? "" : "no JSON";
}

std::string beginningOf(const std::string& body)
{
    std::string text = body.substr(0, kShown);
    std::replace_if(
        text.begin(), text.end(),
        [](char letter) { return letter == '\n' || letter == '\r' || letter == '\t'; }, ' ');
    return "\"" + text + (body.size() > kShown ? "...\"" : "\"");
}

Finding oddAnswer(const char* check, const std::string& text, const std::string& body)
{
    const std::string cause = text + ": " + beginningOf(body);
    const char* const cure =
        "look at the store: a maintenance page, or another server in its place";
    const bool page = body.find_first_not_of(" \t\r\n") != std::string::npos &&
                      body[body.find_first_not_of(" \t\r\n")] == '<';
    return page ? failed(check, "page", cause, cure) : warning(check, "no-json", cause, cure);
}

Finding judgedRequest(const Verdict& verdict)
{
    const std::string status = "HTTP status " + std::to_string(verdict.status);
    const std::string said =
        "the store answered the device with " + status + ": " + beginningOf(verdict.body);
    if (verdict.status >= 500) {
        return failed(kCheck, "outage", said,
                      "look at the store, or wait: the device has done its part");
    }
    if (verdict.status == 401 || verdict.status == 403) {
        return failed(
            kCheck, "refused", said,
            "look at the device's ids and tokens in [config] and [account], and whether the "
            "store knows this device");
    }
    if (verdict.status >= 400) {
        return failed(kCheck, "refused", said, "look at the store's log, and at [deployment]");
    }
    if (verdict.status >= 300) {
        return failed(kCheck, "redirect", said,
                      "name the store itself in [deployment]: the service follows no redirect");
    }
    const std::string odd = oddityOf(verdict.body);
    return odd.empty()
               ? good(kCheck, said)
               : oddAnswer(kCheck, "the store answered the device with " + status + " and " + odd,
                           verdict.body);
}

void checkRequest(Findings& findings, Patient& patient)
{
    if (patient.settingsClosed) {
        findings.push_back(settingsClosed(kCheck));
        return;
    }
    if (!patient.options.sign && !patient.callIll) {
        findings.push_back(notChecked(kCheck,
                                      "--sign asks the store with the device's key, as the "
                                      "service does, and shows its HTTP status"));
        return;
    }
    if (!patient.storeReached || !patient.tokenThere || !patient.asService) {
        findings.push_back(notChecked(kCheck, "what failed above comes first"));
        return;
    }
    if (!patient.keyWorks && !patient.options.sign) {
        const Finding key = checkKey(patient);
        if (!patient.keyWorks) {
            findings.push_back({kCheck, key.outcome, "key." + key.reason, key.text, key.cure});
            return;
        }
    }
    if (!patient.keyWorks) {
        findings.push_back(notChecked(kCheck, "the device's key comes first, see above"));
        return;
    }
    const Verdict verdict = ask(patient.options.timeout);
    findings.push_back(verdict.answered ? judgedRequest(verdict) : notAnswered(verdict));
}

}  // namespace client
