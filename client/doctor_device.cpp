// doctor_device.cpp - what the device proves itself with, and what it trusts.
#include "common/raw_rsa.h"
#include "doctor.h"
#include "key_store.h"
#include "platform_log.h"
#include "settings.h"

#include <platform/deployment.h>
#include <platform/secure_storage.h>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

namespace client {

namespace {

constexpr const char* CERTIFICATE = "/usr/apps/org.plevo.billing-api/res/certificate/bgclient.crt";
constexpr const char* CA_BUNDLE = "/opt/down/cert/ca.pem";
// 2024-01-01: no clock of a device that was built is before it.
constexpr time_t EARLIEST = 1704067200;

struct FileClose {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, FileClose>;
struct CertificateFree {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
using Certificate = std::unique_ptr<X509, CertificateFree>;

Certificate next(FILE* file)
{
    Certificate certificate(PEM_read_X509(file, nullptr, nullptr, nullptr));
    ERR_clear_error();
    return certificate;
}

std::string date(const ASN1_TIME* time)
{
    struct tm parts {};
    char text[32] = "?";
    if (ASN1_TIME_to_tm(time, &parts) == 1) {
        std::strftime(text, sizeof text, "%Y-%m-%d", &parts);
    }
    return text;
}

std::string nameOf(X509* certificate)
{
    char name[256] = "";
    X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, name,
                              sizeof name);
    return name;
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
    const File file(std::fopen(CERTIFICATE, "re"));
    if (file == nullptr) {
        return {"certificate", Outcome::Failed, path + ": " + std::strerror(errno), cure};
    }
    certificate = next(file.get());
    if (certificate == nullptr) {
        return {"certificate", Outcome::Failed, path + " holds no PEM certificate", cure};
    }
    if (!rawrsa::publicNumbersOf(X509_get0_pubkey(certificate.get()))) {
        return {"certificate", Outcome::Failed, path + " is not for an RSA key with 2048 bits",
                "have one made for the device's key (billing-provision request)"};
    }
    const std::string valid = "valid from " + date(X509_get0_notBefore(certificate.get())) +
                              " to " + date(X509_get0_notAfter(certificate.get()));
    if (X509_cmp_current_time(X509_get0_notAfter(certificate.get())) < 0) {
        return {"certificate", Outcome::Failed, path + " has expired: " + valid,
                "have a new one made (billing-provision request --existing); if the clock is "
                "wrong, set it"};
    }
    return {"certificate", Outcome::Ok,
            "\"" + nameOf(certificate.get()) + "\", RSA with 2048 bits, " + valid, ""};
}

Finding checkBundle()
{
    const std::string path = CA_BUNDLE;
    const File file(std::fopen(CA_BUNDLE, "re"));
    if (file == nullptr) {
        return {"CA bundle", Outcome::Failed, path + ": " + std::strerror(errno),
                "put the certificates of the authorities that vouch for the store there, as PEM"};
    }
    int count = 0;
    int expired = 0;
    while (const Certificate certificate = next(file.get())) {
        ++count;
        expired += X509_cmp_current_time(X509_get0_notAfter(certificate.get())) < 0 ? 1 : 0;
    }
    if (count == 0) {
        return {"CA bundle", Outcome::Failed, path + " holds no PEM certificate",
                "put the certificates of the authorities that vouch for the store there"};
    }
    if (expired == count) {
        return {"CA bundle", Outcome::Failed, "every certificate of " + path + " has expired",
                "put a newer bundle there; if the clock is wrong, set it"};
    }
    const std::string past = expired > 0 ? ", " + std::to_string(expired) + " expired" : "";
    return {"CA bundle", Outcome::Ok, std::to_string(count) + " certificates" + past, ""};
}

Finding checkClock(X509* certificate)
{
    const time_t now = std::time(nullptr);
    struct tm parts {};
    char text[32] = "?";
    if (gmtime_r(&now, &parts) != nullptr) {
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &parts);
    }
    const bool early =
        certificate != nullptr && X509_cmp_current_time(X509_get0_notBefore(certificate)) > 0;
    if (now < EARLIEST || early) {
        return {"clock", Outcome::Failed,
                std::string("the clock says ") + text +
                    (early ? ", before the device's certificate is valid" : ""),
                "set the clock: certificates are not valid yet for it"};
    }
    return {"clock", Outcome::Ok, text, ""};
}

/// What is wrong, in the words of who noticed it first; a file that is refused as a whole has been
/// complained of before.
std::string causeOf(const secure::Error& error)
{
    const std::string complaint = takeComplaint();
    if (*error.what() != '\0') {
        return error.what();
    }
    return complaint.empty() ? "[keystore] module, token and pin_file are not all set" : complaint;
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
        return {"token", Outcome::Failed, causeOf(error), cure};
    }
}

Finding checkKey(X509* certificate)
{
    const auto key = certificate != nullptr ? rawrsa::publicNumbersOf(X509_get0_pubkey(certificate))
                                            : std::nullopt;
    if (!key) {
        return {"key", Outcome::NotChecked, "there is no certificate to hold it against", ""};
    }
    ss_credential_s credential{};
    std::uint32_t words[5] = {};
    std::int32_t id = 0;
    if (deployment_get_credential(words) != 0 || deployment_get_key_id(&id) != 0) {
        const std::string complaint = takeComplaint();
        return {"key", Outcome::Failed,
                complaint.empty() ? "[deployment] credential or key_id is not set" : complaint,
                "set both in " + settings::filePath()};
    }
    ss_init_credential(&credential, words[0], words[1], words[2], words[3], words[4], 1, 0);
    unsigned char block[rawrsa::kBlockSize];
    std::fill(std::begin(block), std::end(block), static_cast<unsigned char>(0xff));
    block[0] = 0;
    block[1] = 1;
    block[sizeof block - 1] = 0;  // type 1 padding around nothing
    unsigned char* result = block;
    std::size_t size = sizeof block;
    if (ss_encrypt_by_key(&credential, id, &result, &size, 0, 0) != 0) {
        return {"key", Outcome::Failed, takeComplaint(),
                "run this as the service's user; see billing-provision(8)"};
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

void checkDevice(Findings& findings, const DoctorOptions& options)
{
    Certificate certificate;
    findings.push_back(checkSettings());
    findings.push_back(checkCertificate(certificate));
    findings.push_back(checkBundle());
    findings.push_back(checkClock(certificate.get()));
    findings.push_back(checkToken());
    if (options.sign) {
        findings.push_back(checkKey(certificate.get()));
    } else {
        findings.push_back({"key", Outcome::NotChecked,
                            "--sign signs once with it, as the service's user; a wrong PIN counts "
                            "as a try",
                            ""});
    }
}

}  // namespace client
