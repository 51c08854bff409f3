// device_certificate.h - a self-signed certificate of a device, for a key of the test. A server that
// lets the device in trusts the certificate itself.
#pragma once

#include "test_certificates.h"

#include <string>

namespace test {

/// Makes a private RSA key in PEM form.
/// @param bits of its modulus
std::string newRsaKeyPem(int bits = 2048);
/// Makes a private key on an elliptic curve in PEM form.
std::string newEcKeyPem();

/// Makes a certificate for the key.
/// @param keyPem a private key
/// @param name common name
Identity selfSigned(const std::string& keyPem, const std::string& name);

std::string pemOf(const X509& certificate);

/// Writes a file of text.
void writeText(const std::string& path, const std::string& text);

}  // namespace test
