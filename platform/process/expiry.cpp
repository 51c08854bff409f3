// expiry.cpp - warns before the device's certificate ends.
#include "expiry.h"

#include "../common/descriptor.h"
#include "../common/openssl_holders.h"
#include "../common/places.h"

#include <platform/log.h>

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

namespace process {

namespace {

constexpr std::size_t kSizeLimit = std::size_t{64} * 1024;

/// @return null when there is no readable certificate
openssl::Owner<X509> readCertificate(const char* path)
{
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    char bytes[kSizeLimit];
    if (file.fd < 0 || fstat(file.fd, &status) != 0 || !S_ISREG(status.st_mode))
        return nullptr;
    const ssize_t size = read(file.fd, bytes, sizeof bytes);
    const openssl::Owner<BIO> text(size > 0 ? BIO_new_mem_buf(bytes, static_cast<int>(size))
                                            : nullptr);
    return openssl::Owner<X509>(
        text == nullptr ? nullptr : PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr));
}

}  // namespace

void warnOfExpiry(const char* path)
{
    // First use of OpenSSL in the process. Its exit handler would free data of threads that still
    // run.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    const auto certificate = readCertificate(path);
    ERR_clear_error();
    if (certificate == nullptr)
        return;
    int days = 0;
    int seconds = 0;
    if (ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate.get())) != 1)
        return;
    const bool over = days < 0 || seconds < 0;
    if (X509_cmp_current_time(X509_get0_notBefore(certificate.get())) > 0)
        __dlog_print(DLOG_WARN, "BILLING_PLATFORM",
                     "the device's certificate is not valid yet by this clock; set the clock");
    else if (over)
        __dlog_print(DLOG_WARN, "BILLING_PLATFORM",
                     "the device's certificate has ended %d days ago; put a new one there with "
                     "billing-provision",
                     -days);
    else if (days < places::kFewDays)
        __dlog_print(DLOG_WARN, "BILLING_PLATFORM",
                     "the device's certificate ends in %d days; put a new one there with "
                     "billing-provision",
                     days);
}

}  // namespace process
