// doctor_key.cpp - checks the token and the device's key in it.
#include "base/platform_log.h"
#include "common/raw_rsa.h"
#include "device/certificate.h"
#include "doctor.h"
#include "keystore/key_store.h"
#include "linux/settings/settings.h"
#include "settings/platform_library.h"

#include <platform/deployment.h>
#include <platform/secure_storage.h>

#include <openssl/crypto.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace client {

namespace {

constexpr const char* kNoToken = "there is no token to sign with";

std::string seeSettings()
{
    return "see [keystore] in " + settings::filePath() + ", and billing-provision(8)";
}

/// @return why a setting of [keystore] is missing, if one is; else the error's own text
std::string causeOf(const secure::Error& error)
{
    for (const char* const key : {"module", "token", "pin_file"}) {
        if (!settings::text("keystore", key)) {
            return whyMissing("keystore", key, "");
        }
    }
    return error.what();
}

/// @return the labels of the module's tokens, quoted, separated by commas
std::string tokensOf(const pkcs11::Module& module)
{
    std::string labels;
    for (const CK_SLOT_ID slot : module.slots()) {
        const std::string label = pkcs11::Module::labelOf(module.tokenIn(slot));
        if (!label.empty()) {
            labels += (labels.empty() ? "\"" : ", \"") + label + "\"";
        }
    }
    return labels;
}

Finding checkToken()
{
    const char* const check = "token";
    try {
        const keystore::Place place = keystore::placeFromSettings();
        const pkcs11::Module& module = pkcs11::Module::at(place.module.c_str());
        if (module.slotOf(place.token)) {
            return good(check, "\"" + place.token + "\" is there");
        }
        const std::string others = tokensOf(module);
        const std::string cause = "there is no token \"" + place.token + "\" in " + place.module;
        if (!others.empty()) {
            return failed(check, "missing", cause + ", which has " + others,
                          "set [keystore] token in " + settings::filePath() + " to its label");
        }
        return failed(check, "missing", cause,
                      seeSettings() +
                          "; what a module reads from a variable stands in [keystore] environment "
                          "(SOFTHSM2_CONF=FILE)");
    } catch (const secure::Error& error) {
        takeComplaint();
        return failed(check, "module", causeOf(error), seeSettings());
    }
}

/// @return whether the service will store the device's key from sealed material at its next start
bool isSealed()
{
    const auto path = settings::text("deployment", "key_material");
    return path && access(path->c_str(), F_OK) == 0;
}

/// @return such as "an EC key" when the token has a key with this id that is not RSA; else empty
std::string otherKindOf(std::int32_t id)
{
    std::string kind;
    try {
        keystore::instance().read(
            keystore::placeFromSettings(), [&](const pkcs11::Session& session) {
                pkcs11::Attributes wanted;
                const auto number = static_cast<std::uint32_t>(id);
                const unsigned char bytes[] = {static_cast<unsigned char>(number >> 24),
                                               static_cast<unsigned char>(number >> 16),
                                               static_cast<unsigned char>(number >> 8),
                                               static_cast<unsigned char>(number)};
                wanted.number(CKA_CLASS, CKO_PRIVATE_KEY).bytes(CKA_ID, bytes, sizeof bytes);
                const auto found = session.find(wanted);
                const auto type =
                    found.empty() ? std::nullopt : session.value(found.front(), CKA_KEY_TYPE);
                CK_KEY_TYPE number32 = CKK_RSA;
                if (type && type->size() == sizeof number32) {
                    std::memcpy(&number32, type->data(), sizeof number32);
                }
                kind = number32 == CKK_EC ? "an EC key" : number32 != CKK_RSA ? "no RSA key" : "";
            });
    } catch (const secure::Error&) {
        return "";
    }
    return kind;
}

Finding withoutSignature(int error, std::int32_t id)
{
    const char* const check = "key";
    const std::string complaint = takeComplaint();
    const std::string cause =
        complaint.empty() ? "the key store answers with error " + std::to_string(error) : complaint;
    if (!platformReadsDeviceConf()) {
        return failed(check, "unusable", cause,
                      "look at the device's key store, and at the number in " +
                          placeOf("deployment_get_key_id"));
    }
    switch (error) {
        case SS_ERROR_NOT_FOUND:
            if (const std::string kind = otherKindOf(id); !kind.empty()) {
                return failed(check, "other-kind",
                              "the token's key with CKA_ID " + tokenkeys::shownId(id) + " is " +
                                  kind + ", and the service signs with RSA keys of 2048 bits only",
                              "set [deployment] key_id to a number that has no key, and make one: "
                              "billing-provision request");
            }
            if (isSealed()) {
                return failed(
                    check, "sealed",
                    "the token has no key yet: the sealed one of [deployment] key_material "
                    "is put there when the service starts",
                    "systemctl restart billing-service, then look again; make no other "
                    "key, which would not be the certificate's");
            }
            return failed(check, "missing", cause,
                          "set [deployment] key_id to the id of the device's key, or make one with "
                          "billing-provision request");
        case SS_ERROR_ACCESS:
            return failed(
                check, "pin", cause,
                "see [keystore] pin_file in " + settings::filePath() +
                    ": the PIN alone on one line, chmod 600, owned by the service's user");
        default:
            return failed(check, "unusable", cause,
                          "look at the token with its own tools; see billing-provision(8)");
    }
}

/// Reads the settings with which the service signs.
/// @return a finding when a setting is missing
std::optional<Finding> credentialOf(ss_credential_s& credential, std::int32_t& id)
{
    std::uint32_t words[5] = {};
    const char* const missing = deployment_get_credential(words) != 0 ? "credential"
                                : deployment_get_key_id(&id) != 0     ? "key_id"
                                                                      : nullptr;
    const std::string complaint = takeComplaint();
    if (missing == nullptr) {
        ss_init_credential(&credential, words[0], words[1], words[2], words[3], words[4], 1, 0);
        return std::nullopt;
    }
    const std::string name = std::string("[deployment] ") + missing;
    return failed("key", "not-set", whyMissing("deployment", missing, complaint),
                  "set " + name + " in " + placeOf(std::string("deployment_get_") + missing) +
                      ", then restart the service (systemctl restart billing-service)");
}

Finding sign(const rawrsa::PublicKey& key, ss_credential_s& credential, std::int32_t id)
{
    unsigned char block[rawrsa::kBlockSize];
    std::fill(std::begin(block), std::end(block), static_cast<unsigned char>(0xff));
    block[0] = 0;
    block[1] = 1;
    block[sizeof block - 1] = 0;  // PKCS#1 type 1 padding without data
    unsigned char* result = block;
    std::size_t size = sizeof block;
    const int error = ss_encrypt_by_key(&credential, id, &result, &size, 0, 0);
    if (error != 0) {
        return withoutSignature(error, id);
    }
    const std::unique_ptr<unsigned char, decltype(&ss_free_buffer)> owner(result, ss_free_buffer);
    unsigned char back[rawrsa::kBlockSize];
    if (!rawrsa::publicOperation(key, result, back) ||
        !std::equal(std::begin(back), std::end(back), std::begin(block))) {
        return failed("key", "other", "the token's key is not the certificate's",
                      "install the certificate that was made for it, or set [deployment] key_id");
    }
    return good("key", "one signature, and the certificate confirms it");
}

Finding checkSignature()
{
    const PemFile file = readPem(places::kDeviceCertificate);
    const auto key = file.certificates.empty()
                         ? std::nullopt
                         : rawrsa::publicNumbersOf(X509_get0_pubkey(file.certificates[0].get()));
    ss_credential_s credential{};
    std::int32_t id = 0;
    if (const auto missing = credentialOf(credential, id)) {
        return *missing;
    }
    return key ? sign(*key, credential, id)
               : notChecked("key", "there is no certificate to hold it against");
}

/// Checks whether the device's own library hands out sealed key material.
Finding checkHandedMaterial()
{
    unsigned char* sealed = nullptr;
    std::size_t size = 0;
    const bool handed = deployment_get_key_material(&sealed, &size) == 0;
    takeComplaint();
    if (handed) {
        OPENSSL_cleanse(sealed, size);
        std::free(sealed);
    }
    return good("key material", handed ? "the device's own library has a sealed key"
                                       : "the device's own library has no sealed key");
}

/// Checks for sealed key material on the device: together with its secret it gives the private key away.
Finding checkKeyMaterial()
{
    if (!platformReadsDeviceConf()) {
        return checkHandedMaterial();
    }
    const auto path = settings::text("deployment", "key_material");
    if (!path || (access(path->c_str(), F_OK) != 0 && errno == ENOENT)) {
        return good("key material", "no sealed key is left on the device");
    }
    return failed(
        "key material", "left",
        *path + " is still there: with [keystore] seal_key it gives the key",
        "billing-provision import CERTIFICATE puts the key into the token and removes both files");
}

}  // namespace

Finding checkKey(Patient& patient)
{
    Finding finding = checkSignature();
    patient.keyWorks = finding.outcome == Outcome::Ok;
    return finding;
}

void checkKeyStore(Findings& findings, Patient& patient)
{
    if (patient.settingsClosed) {
        findings.push_back(settingsClosed("key material"));
        findings.push_back(settingsClosed("token"));
        findings.push_back(settingsClosed("key"));
        return;
    }
    findings.push_back(checkKeyMaterial());
    const bool own = !platformReadsDeviceConf();
    findings.push_back(
        own ? notChecked("token", "only the device's own library knows its key store")
            : checkToken());
    patient.tokenThere = own || findings.back().outcome == Outcome::Ok;
    if (!patient.tokenThere) {
        findings.push_back(notChecked("key", kNoToken));
        return;
    }
    ss_credential_s credential{};
    std::int32_t id = 0;
    const auto missing = credentialOf(credential, id);
    if (missing) {
        findings.push_back(*missing);
    } else if (!patient.options.sign) {
        findings.push_back(
            notChecked("key", "--sign signs once with it; a wrong PIN counts as a try"));
    } else {
        findings.push_back(checkKey(patient));
    }
}

}  // namespace client
