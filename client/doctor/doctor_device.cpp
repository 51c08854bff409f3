// doctor_device.cpp - checks the device's certificate, its CA bundle and its clock.
#include "common/raw_rsa.h"
#include "device/certificate.h"
#include "doctor.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>

namespace client {

namespace {

// 2024-01-01: an earlier clock is wrong on any device.
constexpr time_t kEarliest = 1704067200;

Finding checkCertificate(const Patient& patient, Certificate& certificate)
{
    const char* const check = "certificate";
    const char* const cure = "put it there with billing-provision install CERTIFICATE";
    const std::string path = places::kDeviceCertificate;
    PemFile file = readPem(places::kDeviceCertificate);
    if (file.error != 0) {
        return unreadable(patient, check, path, file.error, cure);
    }
    if (file.certificates.empty()) {
        return failed(check, "broken", path + " holds no PEM certificate", cure);
    }
    certificate = std::move(file.certificates.front());
    EVP_PKEY* const key = X509_get0_pubkey(certificate.get());
    if (!rawrsa::publicNumbersOf(key)) {
        return failed(check, "other-key",
                      path + " is for " + kindOf(key) + " and not for an RSA key with 2048 bits",
                      "have one made for the device's key (billing-provision request)");
    }
    const std::string validity = validityOf(certificate.get());
    if (isOver(certificate.get())) {
        return failed(check, "expired", path + " has expired: " + validity,
                      "have a new one made (billing-provision request --existing); if the clock is "
                      "wrong, set it");
    }
    const std::string text =
        "\"" + nameOf(certificate.get()) + "\", RSA with 2048 bits, " + validity;
    const int days = daysLeft(certificate.get());
    if (days < kFewDays && !isBeforeItsTime(certificate.get())) {
        return warning(check, "expires", text + ": " + daysText(days),
                       "have a new one made (billing-provision request --existing), and install it "
                       "(billing-provision install)");
    }
    return good(check, text);
}

using Certificates = std::vector<Certificate>;

/// Checks the dates of the CA bundle.
Finding datesOf(const Certificates& certificates)
{
    const char* const check = "CA bundle";
    const auto count = static_cast<std::ptrdiff_t>(certificates.size());
    const auto expired = std::count_if(certificates.begin(), certificates.end(),
                                       [](const Certificate& one) { return isOver(one.get()); });
    if (expired == count) {
        return failed(check, "expired",
                      std::string("every certificate of ") + kCaBundle + " has expired",
                      "put a newer bundle there; if the clock is wrong, set it");
    }
    const std::string past = expired > 0 ? ", " + std::to_string(expired) + " expired" : "";
    const std::string text =
        std::to_string(count) + (count == 1 ? " certificate" : " certificates") + past;
    const auto last = std::max_element(certificates.begin(), certificates.end(),
                                       [](const Certificate& a, const Certificate& b) {
                                           return daysLeft(a.get()) < daysLeft(b.get());
                                       });
    // Single authorities that expire soon are normal in a large bundle; the store's own is checked with the server.
    if (daysLeft(last->get()) < kFewDays) {
        return warning(check, "expires",
                       text + ", the last of them ends: " + daysText(daysLeft(last->get())),
                       std::string("put a newer bundle to ") + kCaBundle);
    }
    return good(check, text);
}

Finding checkBundle(const Patient& patient)
{
    const char* const check = "CA bundle";
    const char* const cure =
        "put the certificates of the authorities that vouch for the store there, as PEM";
    const std::string path = kCaBundle;
    const PemFile file = readPem(kCaBundle);
    if (file.error != 0) {
        return unreadable(patient, check, path, file.error, cure);
    }
    if (file.broken) {
        return failed(check, "broken",
                      "certificate " + std::to_string(file.certificates.size() + 1) + " of " +
                          path + " is broken",
                      "put a whole bundle there: with a broken one nothing is trusted");
    }
    if (file.certificates.empty()) {
        return failed(check, "empty", path + " holds no PEM certificate", cure);
    }
    return datesOf(file.certificates);
}

Finding checkClock(const X509* certificate)
{
    const bool early = certificate != nullptr && isBeforeItsTime(certificate);
    if (std::time(nullptr) < kEarliest || early) {
        return failed("clock", "early",
                      "the clock says " + clockText() +
                          (early ? ", before the device's certificate is valid" : ""),
                      "set the clock: certificates are not valid yet for it");
    }
    return good("clock", clockText());
}

}  // namespace

void checkDevice(Findings& findings, Patient& patient)
{
    Certificate certificate;
    findings.push_back(checkCertificate(patient, certificate));
    findings.push_back(checkBundle(patient));
    findings.push_back(checkClock(certificate.get()));
}

}  // namespace client
