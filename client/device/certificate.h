// certificate.h - reads and describes certificates for the doctor.
#pragma once

#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

namespace client {

struct CertificateFree {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
using Certificate = std::unique_ptr<X509, CertificateFree>;

/// @return false for a pipe, a socket or a device, which might never end
bool hasAnEnd(const char* path);
/// Stands in place of an errno value: the file might never end.
constexpr int kNoFile = -1;

/// The content of a PEM file.
struct PemFile {
    std::vector<Certificate> certificates;
    int error = 0;        ///< errno value of opening it, or kNoFile
    bool broken = false;  ///< has a block that looks like a certificate and is not valid
};

PemFile readPem(const char* path);

/// "valid from 2026-01-31 to 2027-01-31"
std::string validityOf(const X509* certificate);
/// @return the common name; without one the result of hostsOf()
std::string nameOf(const X509* certificate);
/// @return the issuer's common name; without one another part of its name
std::string issuerOf(const X509* certificate);
/// @return host names and addresses of a server's certificate, separated by commas
std::string hostsOf(const X509* certificate);

/// "an EC key with 256 bits"
std::string kindOf(const EVP_PKEY* key);

/// @return whole days until the certificate expires, by this machine's clock; negative when it has expired
int daysLeft(const X509* certificate);
/// "12 days left"
std::string daysText(int days);

bool isOver(const X509* certificate);
bool isBeforeItsTime(const X509* certificate);

/// @return this machine's date and time
std::string clockText();

}  // namespace client
