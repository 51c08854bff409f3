// device_certificate_file.h - redirects the service's certificate file to a file of the test, by doubles of
// BIO_new_file and stat.
#pragma once

#include "device_certificate.h"

#include <string>

/// The certificate file of the service during the life of the object. At first the file does not exist.
/// Opening any other file through OpenSSL fails the test.
class DeviceCertificateFile {
public:
    DeviceCertificateFile();
    ~DeviceCertificateFile();
    DeviceCertificateFile(const DeviceCertificateFile&) = delete;
    DeviceCertificateFile& operator=(const DeviceCertificateFile&) = delete;

    void holds(const std::string& strText) { test::writeText(m_oFolder.path("crt"), strText); }
    /// Writes a certificate for the key in the fake's key store.
    void holdsTheDevices();
    void isMissing();
    /// Makes a named pipe without a writer.
    void isAPipe();

private:
    test::TemporaryFolder m_oFolder;
};
