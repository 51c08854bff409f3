// device.cpp - provisioning of a device that has its settings file and its token.
#include "certificates.h"
#include "commands.h"
#include "common/hex.h"
#include "common/places.h"
#include "common/value_rules.h"
#include "files.h"
#include "keystore/key_material.h"
#include "keystore/key_store.h"
#include "keystore/private_file.h"
#include "keystore/seal.h"
#include "linux/settings/settings.h"
#include "stop.h"

#include <platform/deployment.h>

#include <openssl/x509.h>
#include <unistd.h>

#include <cstdio>

namespace provision {

namespace {

std::int32_t keyId()
{
    std::int32_t id = 0;
    if (deployment_get_key_id(&id) != 0)
        throw Stop(EXIT_FAILED, "[deployment] key_id must be set first, to any number but 0");
    return id;
}

rawrsa::PublicKey publicKeyOf(X509* certificate, const std::string& path)
{
    EVP_PKEY* const key = X509_get0_pubkey(certificate);
    const auto numbers = key == nullptr ? std::nullopt : rawrsa::publicNumbersOf(key);
    if (!numbers)
        throw Stop(EXIT_FAILED, path + " is not for an RSA key with 2048 bits");
    return *numbers;
}

bool areSame(const rawrsa::PublicKey& a, const rawrsa::PublicKey& b)
{
    return a.modulus == b.modulus && a.exponent == b.exponent;
}

/// @return empty without a readable certificate, or when its name does not fit a request
std::string installedName()
{
    constexpr std::size_t kNameLimit = 64;
    try {
        std::string name = commonNameOf(readCertificate(places::kDeviceCertificate).get());
        if (name.size() > kNameLimit || valuerules::holdsControl(name))
            name.clear();
        return name;
    } catch (const Stop&) {
        return "";
    }
}

/// A common name that is unique to the device. A name of an installed certificate is kept, so a new
/// key does not change it.
std::string nameFor(const rawrsa::PublicKey& key)
{
    if (std::string name = installedName(); !name.empty())
        return name;
    constexpr std::size_t kShownBytes = 8;
    const std::string info = rawrsa::publicKeyInfo(key);
    unsigned char digest[EVP_MAX_MD_SIZE];
    if (EVP_Digest(info.data(), info.size(), digest, nullptr, EVP_sha256(), nullptr) != 1)
        throw Stop(EXIT_FAILED, "making a name failed in the cryptographic library");
    return "billing device " + hex(std::string(digest, digest + kShownBytes));
}

/// Warns when the file holds a chain: the service sends the first certificate only.
void warnOfChain(const std::vector<Certificate>& certificates, const std::string& path)
{
    if (certificates.size() > 1)
        tell("Warning: of the " + std::to_string(certificates.size()) + " certificates in " + path +
             " only the first is installed: the service sends no others. The store must know the "
             "authorities between it and its own.");
}

void warnOfDates(X509* certificate)
{
    if (X509_cmp_current_time(X509_get0_notBefore(certificate)) > 0)
        tell("Warning: the certificate is not valid yet, by the clock of this machine.");
    if (X509_cmp_current_time(X509_get0_notAfter(certificate)) < 0)
        tell("Warning: the certificate has expired, by the clock of this machine.");
    int days = 0;
    int seconds = 0;
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    if (days >= 0 && seconds >= 0 && days < places::kFewDays)
        tell("Warning: the certificate ends in " + std::to_string(days) +
             " days, by the clock of this machine.");
}

void makeKeyInside(const keystore::Place& place, std::int32_t id, bool mayDecrypt)
{
    keystore::instance().change(place, [&](const pkcs11::Session& session) {
        if (tokenkeys::exists(session, id))
            throw Stop(EXIT_EXISTS,
                       "the token has a key with CKA_ID " + tokenkeys::shownId(id) +
                           ", which was left alone; --existing makes a request for it");
        tell("Making a key inside the token \"" + place.token +
             "\". A slow token takes a minute or more.");
        try {
            tokenkeys::generate(session, id, !mayDecrypt);
        } catch (const pkcs11::Failure&) {
            if (!mayDecrypt)
                tell("A token that signs by decrypting, as TPMs do, needs --may-decrypt.");
            throw;
        }
    });
}

std::string neededPath(const char* group, const char* key)
{
    const auto path = settings::text(group, key);
    if (!path)
        throw Stop(EXIT_FAILED, std::string("[") + group + "] " + key +
                                    " must be set first, to the path of a file");
    return *path;
}

/// Reads the secret that seals; makes it when the device has none.
secret::Bytes sealKey()
{
    const std::string path = neededPath("keystore", "seal_key");
    if (!exists(path)) {
        const secret::Bytes made = ::seal::random(keymaterial::kSecretLeast);
        writeFile(path, {reinterpret_cast<const char*>(made.data()), made.size()}, kSecretMode,
                  false);
        tell("Made the device's secret " + path + "; without it the sealed key is lost.");
    }
    return keymaterial::readSealKey(path);
}

/// @return false when the token has had this key before
bool putIntoToken(const keystore::Place& place, std::int32_t id, const rawrsa::PrivateKey& key)
{
    bool put = false;
    keystore::instance().change(place, [&](const pkcs11::Session& session) {
        if (tokenkeys::exists(session, id)) {
            if (!areSame(tokenkeys::publicKey(session, id), key.publicKey()))
                throw Stop(EXIT_EXISTS, "the token has another key with CKA_ID " +
                                            tokenkeys::shownId(id) + ", which was left alone");
            return;
        }
        tokenkeys::import(session, id, key);
        put = true;
    });
    // A software token need not have synced its files; the sealed key is removed after this.
    sync();
    keystore::instance().read(
        place, [&](const pkcs11::Session& session) { tokenkeys::prove(session, id); });
    return put;
}

}  // namespace

void tell(const std::string& line)
{
    fprintf(stderr, "%s\n", line.c_str());
}

void request(const RequestOptions& options)
{
    const bool toFile = options.out != "-";
    if (toFile && !options.force && exists(options.out))
        throw Stop(EXIT_EXISTS, options.out + " exists and was left alone; --force replaces it");
    const std::int32_t id = keyId();
    const keystore::Place place = keystore::placeFromSettings();
    if (!options.existing)
        makeKeyInside(place, id, options.mayDecrypt);
    std::string pem;
    std::string name = options.name;
    keystore::instance().read(place, [&](const pkcs11::Session& session) {
        const std::string fault = tokenkeys::faultIn(session, id);
        if (!fault.empty() && options.existing && !options.mayDecrypt)
            throw Stop(EXIT_FAILED, "the key with CKA_ID " + tokenkeys::shownId(id) + " " + fault +
                                        "; make another one (another [deployment] key_id), or take "
                                        "it as it is with --may-decrypt");
        const rawrsa::PublicKey key = tokenkeys::publicKey(session, id);
        if (name.empty())
            name = nameFor(key);
        pem = makeRequest(key, name, [&](const unsigned char* block) {
            return tokenkeys::privateOperation(session, id, block);
        });
    });
    if (toFile)
        writeFile(options.out, pem, kPublicMode, options.force);
    else
        print(pem);
    tell("The request is for the key with CKA_ID " + tokenkeys::shownId(id) + " and the name \"" +
         name + "\". Have it signed, then: billing-provision install CERTIFICATE");
}

void install(const InstallOptions& options)
{
    const std::vector<Certificate> certificates = readCertificates(options.certificate);
    X509* const certificate = certificates.front().get();
    const rawrsa::PublicKey wanted = publicKeyOf(certificate, options.certificate);
    const std::int32_t id = keyId();
    bool matches = false;
    keystore::instance().read(keystore::placeFromSettings(), [&](const pkcs11::Session& session) {
        matches = areSame(tokenkeys::publicKey(session, id), wanted);
        tokenkeys::prove(session, id);
    });
    if (!matches)
        throw Stop(EXIT_MISMATCH, options.certificate + " is not for the key with CKA_ID " +
                                      tokenkeys::shownId(id) + " of the token");
    warnOfDates(certificate);
    warnOfChain(certificates, options.certificate);
    // Writes behind a link, which stays: on a read-only file system it leads to a writable place.
    const std::string place = behindLinks(options.to);
    writeFile(place, pemOf(certificate), kPublicMode, options.force);
    tell("Installed " + place +
         ".\nRestart needed: a service that runs has read the one before "
         "(systemctl restart billing-service).");
}

void seal(const SealOptions& options)
{
    if (!options.force && exists(options.out))
        throw Stop(EXIT_EXISTS, options.out + " exists and was left alone; --force replaces it");
    const Certificate certificate = readCertificate(options.certificate);
    const Key key = readPrivateKey(options.key);
    const auto numbers = rawrsa::numbersOf(key.get());
    if (!numbers)
        throw Stop(EXIT_FAILED,
                   "the key is no RSA key with 2048 bits and public exponent 65537, 3, 17 or 257");
    if (!areSame(numbers->publicKey(), publicKeyOf(certificate.get(), options.certificate)))
        throw Stop(EXIT_MISMATCH, options.certificate + " is not for this key");
    writeFile(options.out, keymaterial::close(sealKey(), *numbers), kSecretMode, options.force);
    tell("Sealed. Set [deployment] key_material=" + options.out +
         ", and destroy every other copy of the key.");
}

void import(const ImportOptions& options)
{
    const Certificate certificate = readCertificate(options.certificate);
    const std::int32_t id = keyId();
    const std::string material = neededPath("deployment", "key_material");
    const std::string secret = neededPath("keystore", "seal_key");
    const secret::Bytes sealed = privatefile::readSecret(material, keymaterial::kSize);
    const rawrsa::PublicKey wanted = publicKeyOf(certificate.get(), options.certificate);
    const keymaterial::Parts parts =
        keymaterial::open(keymaterial::readSealKey(secret), wanted, sealed.data(), sealed.size());
    const auto key = rawrsa::recover(parts.modulus.data(), parts.modulus.size(),
                                     parts.exponent.data(), parts.exponent.size());
    if (!key || !areSame(key->publicKey(), wanted))
        throw Stop(EXIT_MISMATCH, options.certificate + " is not for the key in " + material);
    const bool put = putIntoToken(keystore::placeFromSettings(), id, *key);
    removeFile(material);
    removeFile(secret);
    tell((put ? "Put the key into the token" : "The key was in the token already") +
         std::string("; removed ") + material + " and " + secret +
         ". Take [deployment] key_material and [keystore] seal_key out of the settings.");
}

}  // namespace provision
