// device_certificate.h - a device's certificate, for a key of the test's own. It is self-signed: a
// server that is to let the device in trusts the certificate itself.
#pragma once

#include "test_certificates.h"

#include <string>

namespace test {

/// A new private RSA key, as PEM. @param bits of its modulus
std::string newRsaKeyPem(int bits = 2048);
/// A new private key on an elliptic curve, as PEM.
std::string newEcKeyPem();

/// A certificate for the key. @param keyPem a private key @param name its common name
Identity selfSigned(const std::string& keyPem, const std::string& name);

std::string pemOf(const X509& certificate);

/// Writes a file of text.
void writeText(const std::string& path, const std::string& text);

}  // namespace test
