// status.cpp - prints token, keys and certificate of the device.
#include "certificates.h"
#include "commands.h"
#include "common/hex.h"
#include "common/places.h"
#include "files.h"
#include "keystore/key_store.h"
#include "stop.h"

#include <platform/deployment.h>

#include <openssl/x509.h>

#include <cstring>
#include <optional>

namespace provision {

namespace {

void printLine(const char* name, const std::string& text)
{
    constexpr std::size_t kNameWidth = 13;
    print(std::string(name).append(kNameWidth - std::strlen(name), ' ') + text + "\n");
}

std::string kindOf(const pkcs11::Session& session, CK_OBJECT_HANDLE key)
{
    const auto type = session.value(key, CKA_KEY_TYPE);
    CK_KEY_TYPE number = CKK_VENDOR_DEFINED;
    if (type && type->size() == sizeof number)
        std::memcpy(&number, type->data(), sizeof number);
    if (number == CKK_EC)
        return "EC, which the service cannot use";
    if (number != CKK_RSA)
        return "neither RSA nor EC, which the service cannot use";
    const auto modulus = session.value(key, CKA_MODULUS);
    return modulus ? "RSA with " + std::to_string(modulus->size() * 8) + " bits" : "RSA";
}

/// Prints all private keys that the token shows.
void printKeys(const pkcs11::Session& session, std::int32_t used)
{
    pkcs11::Attributes wanted;
    wanted.number(CKA_CLASS, CKO_PRIVATE_KEY);
    for (const CK_OBJECT_HANDLE key : session.find(wanted)) {
        const std::string id = hex(session.value(key, CKA_ID).value_or(secret::Bytes()));
        printLine("key", (id.empty() ? "no id" : id) + ", " + kindOf(session, key) +
                             (id == tokenkeys::shownId(used) ? ", [deployment] key_id" : ""));
    }
}

/// Reads the key of [deployment] key_id and checks a signature of it.
/// @return nullopt when there is none
std::optional<rawrsa::PublicKey> keyInUse(const keystore::Place& place, std::int32_t id)
{
    std::optional<rawrsa::PublicKey> key;
    keystore::instance().read(place, [&](const pkcs11::Session& session) {
        printKeys(session, id);
        if (!tokenkeys::exists(session, id))
            return;
        key = tokenkeys::publicKey(session, id);
        tokenkeys::prove(session, id);
    });
    return key;
}

/// @return false when it is not valid now
bool printValidity(const X509* certificate)
{
    int days = 0;
    int seconds = 0;
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    const bool over = days < 0 || seconds < 0;
    const bool early = X509_cmp_current_time(X509_get0_notBefore(certificate)) > 0;
    printLine("validity", over    ? "has expired, by the clock of this machine"
                          : early ? "not valid yet, by the clock of this machine"
                                  : std::to_string(days) + " days left");
    return !over && !early;
}

}  // namespace

void status()
{
    std::int32_t id = 0;
    if (deployment_get_key_id(&id) != 0)
        throw Stop(EXIT_FAILED, "[deployment] key_id must be set first, to any number but 0");
    const keystore::Place place = keystore::placeFromSettings();
    printLine("token", "\"" + place.token + "\" of " + place.module);
    const auto key = keyInUse(place, id);
    printLine("certificate", behindLinks(places::kDeviceCertificate));
    const std::vector<Certificate> certificates = readCertificates(places::kDeviceCertificate);
    X509* const certificate = certificates.front().get();
    printLine("name", shownName(X509_get_subject_name(certificate)));
    printLine("signed by", shownName(X509_get_issuer_name(certificate)));
    const bool valid = printValidity(certificate);
    if (certificates.size() > 1)
        printLine("chain", std::to_string(certificates.size() - 1) +
                               " more in the file, not sent: the store must know them");
    if (!key)
        throw Stop(EXIT_FAILED, "the token has no key with CKA_ID " + tokenkeys::shownId(id));
    const auto numbers = rawrsa::publicNumbersOf(X509_get0_pubkey(certificate));
    if (!numbers || numbers->modulus != key->modulus || numbers->exponent != key->exponent)
        throw Stop(EXIT_MISMATCH,
                   "the certificate is not for the key with CKA_ID " + tokenkeys::shownId(id));
    printLine("match", "the certificate is for the key, which signs");
    if (!valid)
        throw Stop(EXIT_FAILED, "the certificate is not valid now");
}

}  // namespace provision
