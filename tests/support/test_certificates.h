// test_certificates.h - throw-away certificates for the test servers. Keys are made at each run and
// live in a temporary folder.
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

/// A folder that goes with its owner.
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

/// An authority of its own that nobody else trusts.
class CertificateAuthority {
public:
    CertificateAuthority();

    /// A server certificate for these names.
    Identity issue(const std::string& names = "IP:127.0.0.1,DNS:localhost") const;

    void writeTo(const std::string& path) const;

private:
    Identity m_self;
};

/// Writes a certificate and its key as PEM, for servers that read files.
void writeIdentity(const Identity& identity, const std::string& certificatePath,
                   const std::string& keyPath);

}  // namespace test
