// doctor_device.cpp - what the device proves itself with, and what it trusts.
#include "certificate.h"
#include "common/raw_rsa.h"
#include "doctor.h"
#include "key_store.h"
#include "platform_log.h"
#include "settings.h"

#include <platform/deployment.h>
#include <platform/secure_storage.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

namespace client {

namespace {

constexpr const char* CERTIFICATE = "/usr/apps/org.plevo.billing-api/res/certificate/bgclient.crt";
// 2024-01-01: no clock of a device that was built is before it.
constexpr time_t EARLIEST = 1704067200;

Finding unreadable(const char* check, const std::string& path, int error, const char* cure)
{
    const std::string reason =
        error == NO_FILE ? "a pipe, a socket or a device, and no file" : std::strerror(error);
    return {check, Outcome::Failed, path + ": " + reason,
            error == EACCES ? "let the service's user read it, and run this as that user" : cure};
}

Finding checkSettings()
{
    // Reading any setting has the whole file checked.
    settings::text("deployment", "production_host");
    const std::string complaint = takeComplaint();
    if (complaint.empty()) {
        return {"settings", Outcome::Ok, settings::filePath() + " is well-formed", ""};
    }
    return {"settings", Outcome::Failed, complaint,
            "mend the file, or name another one with PLEVO_DEVICE_CONF; it is read again at the "
            "next call"};
}

Finding checkCertificate(Certificate& certificate)
{
    const char* const cure = "put it there with billing-provision install CERTIFICATE";
    const std::string path = CERTIFICATE;
    PemFile file = readPem(CERTIFICATE);
    if (file.error != 0) {
        return unreadable("certificate", path, file.error, cure);
    }
    if (file.certificates.empty()) {
        return {"certificate", Outcome::Failed, path + " holds no PEM certificate", cure};
    }
    certificate = std::move(file.certificates.front());
    if (!rawrsa::publicNumbersOf(X509_get0_pubkey(certificate.get()))) {
        return {"certificate", Outcome::Failed, path + " is not for an RSA key with 2048 bits",
                "have one made for the device's key (billing-provision request)"};
    }
    const std::string validity = validityOf(certificate.get());
    if (isOver(certificate.get())) {
        return {"certificate", Outcome::Failed, path + " has expired: " + validity,
                "have a new one made (billing-provision request --existing); if the clock is "
                "wrong, set it"};
    }
    return {"certificate", Outcome::Ok,
            "\"" + nameOf(certificate.get()) + "\", RSA with 2048 bits, " + validity, ""};
}

Finding checkBundle()
{
    const char* const cure =
        "put the certificates of the authorities that vouch for the store there, as PEM";
    const std::string path = CA_BUNDLE;
    const PemFile file = readPem(CA_BUNDLE);
    if (file.error != 0) {
        return unreadable("CA bundle", path, file.error, cure);
    }
    const auto count = static_cast<std::ptrdiff_t>(file.certificates.size());
    if (file.broken) {
        return {"CA bundle", Outcome::Failed,
                "certificate " + std::to_string(count + 1) + " of " + path + " is broken",
                "put a whole bundle there: with a broken one nothing is trusted"};
    }
    if (count == 0) {
        return {"CA bundle", Outcome::Failed, path + " holds no PEM certificate", cure};
    }
    const auto expired = std::count_if(file.certificates.begin(), file.certificates.end(),
                                       [](const Certificate& one) { return isOver(one.get()); });
    if (expired == count) {
        return {"CA bundle", Outcome::Failed, "every certificate of " + path + " has expired",
                "put a newer bundle there; if the clock is wrong, set it"};
    }
    const std::string past = expired > 0 ? ", " + std::to_string(expired) + " expired" : "";
    return {"CA bundle", Outcome::Ok,
            std::to_string(count) + (count == 1 ? " certificate" : " certificates") + past, ""};
}

Finding checkClock(const X509* certificate)
{
    const bool early = certificate != nullptr && isBeforeItsTime(certificate);
    if (std::time(nullptr) < EARLIEST || early) {
        return {"clock", Outcome::Failed,
                "the clock says " + clockText() +
                    (early ? ", before the device's certificate is valid" : ""),
                "set the clock: certificates are not valid yet for it"};
    }
    return {"clock", Outcome::Ok, clockText(), ""};
}

/// What is wrong, in the words of who noticed it first.
std::string causeOf(const secure::Error& error)
{
    for (const char* const key : {"module", "token", "pin_file"}) {
        if (!settings::text("keystore", key)) {
            return whyMissing("keystore", key);
        }
    }
    return error.what();
}

Finding checkToken()
{
    const std::string cure =
        "see [keystore] in " + settings::filePath() + ", and billing-provision(8)";
    try {
        const keystore::Place place = keystore::placeFromSettings();
        if (pkcs11::Module::at(place.module).slotOf(place.token)) {
            return {"token", Outcome::Ok, "\"" + place.token + "\" is there", ""};
        }
        return {"token", Outcome::Failed,
                "there is no token \"" + place.token + "\" in " + place.module, cure};
    } catch (const secure::Error& error) {
        takeComplaint();
        return {"token", Outcome::Failed, causeOf(error), cure};
    }
}

/// Sealed key material gives the private key, once its secret is read as well.
Finding checkKeyMaterial()
{
    const auto path = settings::text("deployment", "key_material");
    if (!path || (access(path->c_str(), F_OK) != 0 && errno == ENOENT)) {
        return {"key material", Outcome::Ok, "no sealed key is left on the device", ""};
    }
    return {"key material", Outcome::Failed,
            *path + " is still there: with [keystore] seal_key it gives the key",
            "billing-provision import CERTIFICATE puts the key into the token and removes both "
            "files"};
}

std::string cureOf(int error)
{
    switch (error) {
        case SS_ERROR_NOT_FOUND:
            return "set [deployment] key_id to the id of the device's key, or make one with "
                   "billing-provision request";
        case SS_ERROR_ACCESS:
            return "see [keystore] pin_file in " + settings::filePath() +
                   ", and run this as the service's user";
        default:
            return "look at the token with its own tools; see billing-provision(8)";
    }
}

Finding checkKey(const X509* certificate)
{
    const auto key = certificate != nullptr ? rawrsa::publicNumbersOf(X509_get0_pubkey(certificate))
                                            : std::nullopt;
    if (!key) {
        return {"key", Outcome::NotChecked, "there is no certificate to hold it against", ""};
    }
    ss_credential_s credential{};
    std::uint32_t words[5] = {};
    std::int32_t id = 0;
    const char* const missing = deployment_get_credential(words) != 0 ? "credential"
                                : deployment_get_key_id(&id) != 0     ? "key_id"
                                                                      : nullptr;
    takeComplaint();
    if (missing != nullptr) {
        return {"key", Outcome::Failed, whyMissing("deployment", missing),
                "set it in " + settings::filePath()};
    }
    ss_init_credential(&credential, words[0], words[1], words[2], words[3], words[4], 1, 0);
    unsigned char block[rawrsa::kBlockSize];
    std::fill(std::begin(block), std::end(block), static_cast<unsigned char>(0xff));
    block[0] = 0;
    block[1] = 1;
    block[sizeof block - 1] = 0;  // type 1 padding around nothing
    unsigned char* result = block;
    std::size_t size = sizeof block;
    const int error = ss_encrypt_by_key(&credential, id, &result, &size, 0, 0);
    if (error != 0) {
        const std::string complaint = takeComplaint();
        return {"key", Outcome::Failed,
                complaint.empty() ? "the key store answers with error " + std::to_string(error)
                                  : complaint,
                cureOf(error)};
    }
    const std::unique_ptr<unsigned char, decltype(&ss_free_buffer)> owner(result, ss_free_buffer);
    unsigned char back[rawrsa::kBlockSize];
    if (!rawrsa::publicOperation(*key, result, back) ||
        !std::equal(std::begin(back), std::end(back), std::begin(block))) {
        return {"key", Outcome::Failed, "the token's key is not the certificate's",
                "install the certificate that was made for it, or set [deployment] key_id"};
    }
    return {"key", Outcome::Ok, "one signature, and the certificate confirms it", ""};
}

}  // namespace

std::string whyMissing(const char* group, const char* key)
{
    const std::string name = std::string("[") + group + "] " + key;
    return settings::isRefused(group, key) ? name + " holds what it may not, see settings above"
                                           : name + " is not set";
}

void checkDevice(Findings& findings, const DoctorOptions& options)
{
    Certificate certificate;
    findings.push_back(checkSettings());
    findings.push_back(checkCertificate(certificate));
    findings.push_back(checkBundle());
    findings.push_back(checkClock(certificate.get()));
    findings.push_back(checkKeyMaterial());
    findings.push_back(checkToken());
    if (!options.sign) {
        findings.push_back({"key", Outcome::NotChecked,
                            "--sign signs once with it, as the service's user; a wrong PIN counts "
                            "as a try",
                            ""});
    } else if (findings.back().outcome == Outcome::Failed) {
        findings.push_back({"key", Outcome::NotChecked, "there is no token to sign with", ""});
    } else {
        findings.push_back(checkKey(certificate.get()));
    }
}

}  // namespace client
