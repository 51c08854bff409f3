// device_certificate_file.cpp - the doubles of BIO_new_file and stat.
#include "device_certificate_file.h"

#include "fake_platform.h"

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>

namespace {

constexpr const char* CERTIFICATE = "/usr/apps/org.plevo.billing-api/res/certificate/bgclient.crt";
std::string g_strPath;

const char* Redirected(const char* path)
{
    return std::strcmp(path, CERTIFICATE) == 0 ? g_strPath.c_str() : path;
}

}  // namespace

extern "C" {
BIO* __real_BIO_new_file(const char* filename, const char* mode);
BIO* __wrap_BIO_new_file(const char* filename, const char* mode)
{
    EXPECT_STREQ(filename, CERTIFICATE);
    EXPECT_STREQ(mode, "rt");
    if (std::filesystem::is_fifo(g_strPath)) {
        ADD_FAILURE() << "the open would never return";
        return nullptr;
    }
    return __real_BIO_new_file(g_strPath.c_str(), mode);
}

int __real_stat(const char* path, struct stat* status);
int __wrap_stat(const char* path, struct stat* status)
{
    return __real_stat(Redirected(path), status);
}

// The name of stat on machines of 32 bits.
int __real_stat64(const char* path, struct stat* status);
int __wrap_stat64(const char* path, struct stat* status)
{
    return __real_stat64(Redirected(path), status);
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

void DeviceCertificateFile::isAPipe()
{
    isMissing();
    EXPECT_EQ(mkfifo(g_strPath.c_str(), 0600), 0);
}
