// certificate.h - certificates as the doctor reads and describes them.
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

/// False for a pipe, a socket or a device, whose reader might wait for ever.
bool hasAnEnd(const char* path);
/// In place of an errno value: the file has no end.
constexpr int kNoFile = -1;

/// What a PEM file holds.
struct PemFile {
    std::vector<Certificate> certificates;
    int error = 0;        ///< of opening it, an errno value or kNoFile
    bool broken = false;  ///< something follows that looks like a certificate and is none
};

PemFile readPem(const char* path);

/// "valid from 2026-01-31 to 2027-01-31"
std::string validityOf(const X509* certificate);
/// The common name, or where there is none what hostsOf() says.
std::string nameOf(const X509* certificate);
/// The common name of who signed it, or another part of the name.
std::string issuerOf(const X509* certificate);
/// The host names and addresses that a server's certificate is for, with commas between them.
std::string hostsOf(const X509* certificate);

/// "an EC key with 256 bits"
std::string kindOf(const EVP_PKEY* key);

/// Whole days until it ends, by the clock of this machine; less than 0 when it has ended.
int daysLeft(const X509* certificate);
/// "12 days left"
std::string daysText(int days);

bool isOver(const X509* certificate);
bool isBeforeItsTime(const X509* certificate);

/// What the clock of this machine says.
std::string clockText();

}  // namespace client
