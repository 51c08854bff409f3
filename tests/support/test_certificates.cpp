// test_certificates.cpp - an authority and what it signs, made with OpenSSL.
#include "test_certificates.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace test {
namespace {

struct FileClose {
    void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
};
using File = std::unique_ptr<std::FILE, FileClose>;

void require(bool ok, const char* what)
{
    if (!ok) {
        throw std::runtime_error(what);
    }
}

File openForWriting(const std::string& path)
{
    File file(std::fopen(path.c_str(), "we"));
    require(file != nullptr, "cannot write a certificate");
    return file;
}

void addExtension(X509* certificate, X509* issuer, int id, const char* value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, &context, id, value);
    require(extension != nullptr, "bad certificate extension");
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

/// Makes a certificate without extensions and signature. A null issuer makes it self-issued.
Identity draft(std::string name, X509* issuer)
{
    Identity made;
    made.key.reset(EVP_EC_gen("P-256"));
    made.certificate.reset(X509_new());
    X509* const certificate = made.certificate.get();
    require(made.key != nullptr && certificate != nullptr, "no memory for a certificate");
    static long serial = 0;
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
    name += ' ' + std::to_string(serial);  // authorities need different names
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 24L * 3600);
    X509_set_pubkey(certificate, made.key.get());
    X509_NAME* const subject = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
    X509_set_issuer_name(certificate, issuer != nullptr ? X509_get_subject_name(issuer) : subject);
    return made;
}

}  // namespace

TemporaryFolder::TemporaryFolder()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "billing-test-XXXXXX").string();
    require(mkdtemp(pattern.data()) != nullptr, "cannot make a temporary folder");
    m_path = pattern;
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

CertificateAuthority::CertificateAuthority() : m_self(draft("Authority", nullptr))
{
    X509* const own = m_self.certificate.get();
    addExtension(own, own, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(own, own, NID_key_usage, "critical,keyCertSign,cRLSign");
    require(X509_sign(own, m_self.key.get(), EVP_sha256()) != 0, "cannot sign");
}

Identity CertificateAuthority::issue(const std::string& names) const
{
    Identity made = draft("Server", m_self.certificate.get());
    addExtension(made.certificate.get(), m_self.certificate.get(), NID_subject_alt_name,
                 names.c_str());
    require(X509_sign(made.certificate.get(), m_self.key.get(), EVP_sha256()) != 0, "cannot sign");
    return made;
}

void CertificateAuthority::writeTo(const std::string& path) const
{
    const File file = openForWriting(path);
    require(PEM_write_X509(file.get(), m_self.certificate.get()) == 1, "cannot write");
}

void writeIdentity(const Identity& identity, const std::string& certificatePath,
                   const std::string& keyPath)
{
    const File certificate = openForWriting(certificatePath);
    require(PEM_write_X509(certificate.get(), identity.certificate.get()) == 1, "cannot write");
    const File key = openForWriting(keyPath);
    require(PEM_write_PrivateKey(key.get(), identity.key.get(), nullptr, nullptr, 0, nullptr,
                                 nullptr) == 1,
            "cannot write");
}

}  // namespace test
