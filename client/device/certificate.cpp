// certificate.cpp - reads and describes certificates for the doctor.
#include "certificate.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace client {

namespace {

struct FileClose {
    void operator()(FILE* file) const { std::fclose(file); }
};
struct NamesFree {
    void operator()(GENERAL_NAMES* names) const { GENERAL_NAMES_free(names); }
};

std::string date(const ASN1_TIME* time)
{
    struct tm parts {};
    char text[32] = "?";
    if (ASN1_TIME_to_tm(time, &parts) == 1) {
        std::strftime(text, sizeof text, "%Y-%m-%d", &parts);
    }
    return text;
}

std::string nameText(const GENERAL_NAME* name)
{
    int type = 0;
    const auto* const value = static_cast<const ASN1_STRING*>(GENERAL_NAME_get0_value(name, &type));
    if (type != GEN_DNS && type != GEN_IPADD) {
        return "";
    }
    const unsigned char* const bytes = ASN1_STRING_get0_data(value);
    const auto size = static_cast<std::size_t>(ASN1_STRING_length(value));
    if (type == GEN_DNS) {
        return {reinterpret_cast<const char*>(bytes), size};
    }
    char address[INET6_ADDRSTRLEN] = "";
    const int family = size == sizeof(in_addr) ? AF_INET : AF_INET6;
    const bool whole = size == sizeof(in_addr) || size == sizeof(in6_addr);
    return whole ? inet_ntop(family, bytes, address, sizeof address) : "";
}

std::string nameText(const X509_NAME* name, int part)
{
    char text[256] = "";
    X509_NAME_get_text_by_NID(name, part, text, sizeof text);
    return text;
}

}  // namespace

bool hasAnEnd(const char* path)
{
    struct stat status {};
    return stat(path, &status) != 0 || S_ISREG(status.st_mode) || S_ISDIR(status.st_mode);
}

PemFile readPem(const char* path)
{
    PemFile result;
    const bool ends = hasAnEnd(path);
    const std::unique_ptr<FILE, FileClose> file(ends ? std::fopen(path, "re") : nullptr);
    if (file == nullptr) {
        result.error = ends ? errno : kNoFile;
        return result;
    }
    ERR_clear_error();
    while (Certificate next{PEM_read_X509(file.get(), nullptr, nullptr, nullptr)}) {
        result.certificates.push_back(std::move(next));
    }
    result.broken = ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE;
    ERR_clear_error();
    return result;
}

std::string validityOf(const X509* certificate)
{
    return "valid from " + date(X509_get0_notBefore(certificate)) + " to " +
           date(X509_get0_notAfter(certificate));
}

std::string nameOf(const X509* certificate)
{
    std::string name = nameText(X509_get_subject_name(certificate), NID_commonName);
    return !name.empty() ? name : hostsOf(certificate);
}

std::string issuerOf(const X509* certificate)
{
    const X509_NAME* const issuer = X509_get_issuer_name(certificate);
    for (const int part : {NID_commonName, NID_organizationalUnitName, NID_organizationName}) {
        std::string name = nameText(issuer, part);
        if (!name.empty()) {
            return name;
        }
    }
    return "an issuer without a name";
}

std::string hostsOf(const X509* certificate)
{
    const std::unique_ptr<GENERAL_NAMES, NamesFree> names(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    std::string result;
    for (int i = 0; names != nullptr && i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const std::string text = nameText(sk_GENERAL_NAME_value(names.get(), i));
        result += (result.empty() || text.empty() ? "" : ", ") + text;
    }
    return result.empty() ? "no host" : result;
}

std::string kindOf(const EVP_PKEY* key)
{
    const char* const name = key == nullptr ? nullptr : EVP_PKEY_get0_type_name(key);
    if (name == nullptr) {
        return "a key that OpenSSL does not know";
    }
    const bool vowel = *name == 'E' || *name == 'R';
    return std::string(vowel ? "an " : "a ") + name + " key with " +
           std::to_string(EVP_PKEY_get_bits(key)) + " bits";
}

int daysLeft(const X509* certificate)
{
    int days = 0;
    int seconds = 0;
    // A null start time means now.
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    return seconds < 0 ? days - 1 : days;
}

std::string daysText(int days)
{
    return std::to_string(days) + (days == 1 ? " day left" : " days left");
}

bool isOver(const X509* certificate)
{
    return X509_cmp_current_time(X509_get0_notAfter(certificate)) < 0;
}

bool isBeforeItsTime(const X509* certificate)
{
    return X509_cmp_current_time(X509_get0_notBefore(certificate)) > 0;
}

std::string clockText()
{
    const time_t now = std::time(nullptr);
    struct tm parts {};
    char text[32] = "?";
    if (gmtime_r(&now, &parts) != nullptr) {
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &parts);
    }
    return text;
}

}  // namespace client
