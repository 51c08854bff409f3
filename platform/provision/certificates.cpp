// certificates.cpp - makes and reads certificates, requests and keys.
#include "certificates.h"

#include "files.h"
#include "stop.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <algorithm>

namespace provision {

namespace {

using Bio = openssl::Owner<BIO>;

constexpr long kVersion3 = 2;
constexpr int kSerialBits = 127;

constexpr std::size_t kDigestSize = 32;
/// DER that precedes a SHA-256 digest in a signature.
constexpr unsigned char kDigestInfo[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                         0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};

void check(bool worked, const char* what)
{
    if (!worked)
        throw Stop(EXIT_FAILED, std::string(what) + " failed in the cryptographic library");
}

Bio memory()
{
    Bio bio(BIO_new(BIO_s_secmem()));
    check(bio != nullptr, "allocation");
    return bio;
}

/// @return the bytes that were written to the BIO
template <typename Bytes>
Bytes contentOf(const Bio& bio)
{
    char* text = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &text);
    return Bytes(text, text + size);
}

Bio over(const secret::Bytes& bytes)
{
    Bio bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    check(bio != nullptr, "allocation");
    return bio;
}

/// Refuses encrypted keys without asking for a passphrase.
int noPassphrase(char*, int, int, void*)
{
    return -1;
}

void setName(X509_NAME* name, const std::string& text)
{
    check(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(text.size()), -1, 0) == 1,
          "setting the name");
}

void extend(X509* certificate, X509* issuer, int what, const std::string& value)
{
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, &context, what, value.c_str());
    const bool worked = extension != nullptr && X509_add_ext(certificate, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    check(worked, "extending a certificate");
}

/// A certificate without extensions and signature.
Certificate blank(EVP_PKEY* key, const std::string& name, int days)
{
    Certificate made(X509_new());
    BIGNUM* const serial = BN_new();
    const bool numbered = made != nullptr && serial != nullptr &&
                          BN_rand(serial, kSerialBits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1 &&
                          BN_to_ASN1_INTEGER(serial, X509_get_serialNumber(made.get())) != nullptr;
    BN_free(serial);
    // Valid from yesterday on, since a device's clock may be behind.
    check(numbered && X509_set_version(made.get(), kVersion3) == 1 &&
              X509_time_adj_ex(X509_getm_notBefore(made.get()), -1, 0, nullptr) != nullptr &&
              X509_time_adj_ex(X509_getm_notAfter(made.get()), days, 0, nullptr) != nullptr &&
              X509_set_pubkey(made.get(), key) == 1,
          "making a certificate");
    setName(X509_get_subject_name(made.get()), name);
    return made;
}

std::string alternativeNames(const std::vector<std::string>& hosts)
{
    std::string names;
    for (const std::string& host : hosts) {
        unsigned char address[sizeof(in6_addr)];
        const bool isAddress = inet_pton(AF_INET, host.c_str(), address) == 1 ||
                               inet_pton(AF_INET6, host.c_str(), address) == 1;
        names += (names.empty() ? "" : ",") + std::string(isAddress ? "IP:" : "DNS:") + host;
    }
    return names;
}

}  // namespace

Key makeKey()
{
    Key key(EVP_RSA_gen(2048));
    check(key != nullptr, "making a key");
    return key;
}

secret::Bytes pemOf(EVP_PKEY* privateKey)
{
    const Bio out = memory();
    check(PEM_write_bio_PKCS8PrivateKey(out.get(), privateKey, nullptr, nullptr, 0, nullptr,
                                        nullptr) == 1,
          "writing a key");
    return contentOf<secret::Bytes>(out);
}

std::string pemOf(X509* certificate)
{
    const Bio out = memory();
    check(PEM_write_bio_X509(out.get(), certificate) == 1, "writing a certificate");
    return contentOf<std::string>(out);
}

std::vector<Certificate> readCertificates(const std::string& path)
{
    const secret::Bytes bytes = readFile(path);
    const Bio text = over(bytes);
    std::vector<Certificate> read;
    while (X509* const one = PEM_read_bio_X509(text.get(), nullptr, noPassphrase, nullptr))
        read.emplace_back(one);
    ERR_clear_error();
    if (read.empty())
        throw Stop(EXIT_FAILED, path + " holds no certificate in PEM form");
    return read;
}

Certificate readCertificate(const std::string& path)
{
    return std::move(readCertificates(path).front());
}

std::string shownName(const X509_NAME* name)
{
    const Bio out = memory();
    check(X509_NAME_print_ex(out.get(), name, 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB) >= 0,
          "reading a name");
    return contentOf<std::string>(out);
}

std::string commonNameOf(const X509* certificate)
{
    X509_NAME* const name = X509_get_subject_name(certificate);
    const int at = X509_NAME_get_index_by_NID(name, NID_commonName, -1);
    unsigned char* text = nullptr;
    const int size = at < 0 ? -1
                            : ASN1_STRING_to_UTF8(
                                  &text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, at)));
    std::string found = size < 0 ? "" : std::string(text, text + size);
    OPENSSL_free(text);
    return found;
}

Key readPrivateKey(const std::string& path)
{
    const secret::Bytes bytes = readFile(path);
    Key read(PEM_read_bio_PrivateKey(over(bytes).get(), nullptr, noPassphrase, nullptr));
    if (read == nullptr)
        throw Stop(EXIT_FAILED, (path == "-" ? "standard input" : path) +
                                    " holds no private key in PEM form, or an encrypted one; "
                                    "decrypt it into a pipe (openssl pkey -in FILE)");
    return read;
}

Authority makeAuthority(const std::string& name, int days)
{
    Authority made;
    made.key = makeKey();
    made.certificate = blank(made.key.get(), name, days);
    X509* const own = made.certificate.get();
    check(X509_set_issuer_name(own, X509_get_subject_name(own)) == 1, "naming the authority");
    extend(own, own, NID_basic_constraints, "critical,CA:TRUE");
    extend(own, own, NID_key_usage, "critical,keyCertSign,cRLSign");
    extend(own, own, NID_subject_key_identifier, "hash");
    check(X509_sign(own, made.key.get(), EVP_sha256()) > 0, "signing a certificate");
    return made;
}

Certificate issue(const Authority& authority, EVP_PKEY* publicKey, const std::string& name, Use use,
                  const std::vector<std::string>& hosts, int days)
{
    Certificate made = blank(publicKey, name, days);
    X509* const issuer = authority.certificate.get();
    check(X509_set_issuer_name(made.get(), X509_get_subject_name(issuer)) == 1,
          "naming the authority");
    extend(made.get(), issuer, NID_basic_constraints, "critical,CA:FALSE");
    extend(made.get(), issuer, NID_key_usage,
           use == Use::Server ? "critical,digitalSignature,keyEncipherment"
                              : "critical,digitalSignature");
    extend(made.get(), issuer, NID_ext_key_usage, use == Use::Server ? "serverAuth" : "clientAuth");
    extend(made.get(), issuer, NID_subject_key_identifier, "hash");
    extend(made.get(), issuer, NID_authority_key_identifier, "keyid");
    if (use == Use::Server)
        extend(made.get(), issuer, NID_subject_alt_name, alternativeNames(hosts));
    check(X509_sign(made.get(), authority.key.get(), EVP_sha256()) > 0, "signing a certificate");
    return made;
}

std::string makeRequest(const rawrsa::PublicKey& key, const std::string& name, const Signer& signer)
{
    const openssl::Owner<X509_REQ> request(X509_REQ_new());
    const auto record = rawrsa::record(key);
    check(request != nullptr && X509_REQ_set_version(request.get(), 0) == 1 &&
              X509_REQ_set_pubkey(request.get(), record.get()) == 1,
          "making a request");
    setName(X509_REQ_get_subject_name(request.get()), name);

    unsigned char* der = nullptr;
    const int size = i2d_re_X509_REQ_tbs(request.get(), &der);
    check(size > 0, "making a request");
    secret::Bytes info(std::begin(kDigestInfo), std::end(kDigestInfo));
    info.resize(sizeof kDigestInfo + kDigestSize);
    const bool digested = EVP_Digest(der, static_cast<std::size_t>(size), &info[sizeof kDigestInfo],
                                     nullptr, EVP_sha256(), nullptr) == 1;
    OPENSSL_free(der);
    check(digested, "making a request");

    const secret::Bytes signature = signer(rawrsa::paddedBlock(info.data(), info.size()).data());
    ASN1_BIT_STRING* const bits = ASN1_BIT_STRING_new();
    check(bits != nullptr && ASN1_BIT_STRING_set(bits, const_cast<unsigned char*>(signature.data()),
                                                 static_cast<int>(signature.size())) == 1,
          "signing a request");
    bits->flags = (bits->flags & ~7L) | ASN1_STRING_FLAG_BITS_LEFT;
    X509_REQ_set0_signature(request.get(), bits);
    X509_ALGOR* const algorithm = X509_ALGOR_new();
    check(algorithm != nullptr &&
              X509_ALGOR_set0(algorithm, OBJ_nid2obj(NID_sha256WithRSAEncryption), V_ASN1_NULL,
                              nullptr) == 1 &&
              X509_REQ_set1_signature_algo(request.get(), algorithm) == 1,
          "signing a request");
    X509_ALGOR_free(algorithm);
    check(X509_REQ_verify(request.get(), record.get()) == 1, "checking the request");

    const Bio out = memory();
    check(PEM_write_bio_X509_REQ(out.get(), request.get()) == 1, "writing a request");
    return contentOf<std::string>(out);
}

}  // namespace provision
