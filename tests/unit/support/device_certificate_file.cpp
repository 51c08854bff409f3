// device_certificate_file.cpp - the double of BIO_new_file.
#include "device_certificate_file.h"

#include "fake_platform.h"

#include <gtest/gtest.h>
#include <openssl/bio.h>

#include <filesystem>

namespace {

std::string g_strPath;

}  // namespace

extern "C" {
BIO* __real_BIO_new_file(const char* filename, const char* mode);
BIO* __wrap_BIO_new_file(const char* filename, const char* mode)
{
    EXPECT_STREQ(filename, "/usr/apps/org.plevo.billing-api/res/certificate/bgclient.crt");
    EXPECT_STREQ(mode, "rt");
    return __real_BIO_new_file(g_strPath.c_str(), mode);
}
}

DeviceCertificateFile::DeviceCertificateFile()
{
    g_strPath = m_oFolder.path("crt");
}

DeviceCertificateFile::~DeviceCertificateFile()
{
    g_strPath.clear();
}

void DeviceCertificateFile::holdsTheDevices()
{
    static const std::string s_strPem =
        test::pemOf(*test::selfSigned(fake::Platform::deviceKeyPem(), "Device").certificate);
    holds(s_strPem);
}

void DeviceCertificateFile::isMissing()
{
    std::filesystem::remove(m_oFolder.path("crt"));
}
