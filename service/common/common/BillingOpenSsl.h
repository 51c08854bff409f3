// BillingOpenSsl.h - OpenSSL's headers, holders for its objects, and a guard for its error queue.
#pragma once

// The key store signs through an RSA method. OpenSSL 3 still calls such methods, but marks their
// functions as deprecated.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>

struct BillingOpenSslFree {
    void operator()(BIO* pBio) const { BIO_free(pBio); }
    void operator()(HMAC_CTX* pContext) const { HMAC_CTX_free(pContext); }
    void operator()(EVP_PKEY* pKey) const { EVP_PKEY_free(pKey); }
    void operator()(RSA* pRsa) const { RSA_free(pRsa); }
    void operator()(X509* pCert) const { X509_free(pCert); }
};

/// Owns an OpenSSL object.
template <typename T>
using BillingOpenSslPtr = std::unique_ptr<T, BillingOpenSslFree>;

/// Removes the errors of its scope from the thread's error queue, where the next TLS call would take
/// them for its own.
class CBillingOpenSslErrors {
public:
    CBillingOpenSslErrors() { ERR_set_mark(); }
    ~CBillingOpenSslErrors() { ERR_pop_to_mark(); }
    CBillingOpenSslErrors(const CBillingOpenSslErrors&) = delete;
    CBillingOpenSslErrors& operator=(const CBillingOpenSslErrors&) = delete;
};
