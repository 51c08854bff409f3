// device_certificate_file.h - puts the device's certificate file where a test has one. The program
// is linked with a double in front of BIO_new_file.
#pragma once

#include "device_certificate.h"

#include <string>

/// Where the service finds its certificate file, for the life of the object; no file at first.
/// Opening any other file through OpenSSL fails the test.
class DeviceCertificateFile {
public:
    DeviceCertificateFile();
    ~DeviceCertificateFile();
    DeviceCertificateFile(const DeviceCertificateFile&) = delete;
    DeviceCertificateFile& operator=(const DeviceCertificateFile&) = delete;

    void holds(const std::string& strText) { test::writeText(m_oFolder.path("crt"), strText); }
    /// A certificate for the key that the fake's key store has.
    void holdsTheDevices();
    void isMissing();

private:
    test::TemporaryFolder m_oFolder;
};
