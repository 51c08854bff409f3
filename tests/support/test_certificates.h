// test_certificates.h - certificates of the test servers. Each run makes new keys in a temporary
// folder.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <filesystem>
#include <memory>
#include <string>

namespace test {

struct OpenSslFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(X509* certificate) const { X509_free(certificate); }
};

/// A certificate with its key.
struct Identity {
    std::unique_ptr<EVP_PKEY, OpenSslFree> key;
    std::unique_ptr<X509, OpenSslFree> certificate;
};

/// A temporary folder; the destructor removes it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string path(const std::string& name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};

/// A certificate authority for one test.
class CertificateAuthority {
public:
    CertificateAuthority();

    /// Issues a server certificate for these names.
    Identity issue(const std::string& names = "IP:127.0.0.1,DNS:localhost") const;

    void writeTo(const std::string& path) const;

private:
    Identity m_self;
};

/// Writes a certificate and its key as PEM files.
void writeIdentity(const Identity& identity, const std::string& certificatePath,
                   const std::string& keyPath);

}  // namespace test
