// device_certificate.cpp - keys and certificates of a device, made with OpenSSL.
#include "device_certificate.h"

#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <fstream>
#include <stdexcept>

namespace test {
namespace {

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using Bio = std::unique_ptr<BIO, BioFree>;
using Key = std::unique_ptr<EVP_PKEY, OpenSslFree>;

std::string contentsOf(BIO* bio)
{
    char* text = nullptr;
    const long length = BIO_get_mem_data(bio, &text);
    return std::string(text, static_cast<std::size_t>(length));
}

std::string pemOfKey(const Key& key)
{
    const Bio out(BIO_new(BIO_s_mem()));
    if (PEM_write_bio_PrivateKey(out.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) !=
        1) {
        throw std::runtime_error("cannot make a key");
    }
    return contentsOf(out.get());
}

}  // namespace

std::string newRsaKeyPem(int bits)
{
    return pemOfKey(Key(EVP_RSA_gen(static_cast<unsigned>(bits))));
}

std::string newEcKeyPem()
{
    return pemOfKey(Key(EVP_EC_gen("P-256")));
}

Identity selfSigned(const std::string& keyPem, const std::string& name)
{
    const Bio in(BIO_new_mem_buf(keyPem.data(), static_cast<int>(keyPem.size())));
    Identity made;
    made.key.reset(PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr));
    made.certificate.reset(X509_new());
    X509* const certificate = made.certificate.get();
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 24L * 3600);
    X509_set_pubkey(certificate, made.key.get());
    X509_NAME* const subject = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
    X509_set_issuer_name(certificate, subject);
    if (X509_sign(certificate, made.key.get(), EVP_sha256()) == 0) {
        throw std::runtime_error("cannot sign a certificate");
    }
    return made;
}

std::string pemOf(const X509& certificate)
{
    const Bio out(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(out.get(), const_cast<X509*>(&certificate));
    return contentsOf(out.get());
}

void writeText(const std::string& path, const std::string& text)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path);
    }
}

}  // namespace test
