// openssl_holders.h - owners of OpenSSL's objects.
#pragma once

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/params.h>
#include <openssl/x509.h>

#include <memory>

namespace openssl {

struct Free {
    void operator()(BIGNUM* number) const { BN_clear_free(number); }
    void operator()(BIO* bio) const { BIO_free_all(bio); }
    void operator()(BN_CTX* context) const { BN_CTX_free(context); }
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
    void operator()(OSSL_PARAM* parameters) const { OSSL_PARAM_free(parameters); }
    void operator()(OSSL_PARAM_BLD* builder) const { OSSL_PARAM_BLD_free(builder); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(X509_REQ* request) const { X509_REQ_free(request); }
};

template <typename T>
using Owner = std::unique_ptr<T, Free>;

}  // namespace openssl
