// rsa_key.h - an RSA key for tests, as bare numbers.
#pragma once

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <memory>
#include <string>
#include <vector>

namespace test {

using Bytes = std::vector<unsigned char>;

struct RsaKey {
    struct Free {
        void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
        void operator()(BIO* bio) const { BIO_free(bio); }
        void operator()(BIGNUM* number) const { BN_free(number); }
    };
    std::unique_ptr<EVP_PKEY, Free> key;

    /// Makes a key.
    /// @param exponent public exponent
    static RsaKey make(unsigned bits = 2048, unsigned exponent = 65537)
    {
        const std::unique_ptr<BIGNUM, Free> e(BN_new());
        BN_set_word(e.get(), exponent);
        EVP_PKEY_CTX* const context = EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr);
        EVP_PKEY* made = nullptr;
        EVP_PKEY_keygen_init(context);
        EVP_PKEY_CTX_set_rsa_keygen_bits(context, static_cast<int>(bits));
        EVP_PKEY_CTX_set1_rsa_keygen_pubexp(context, e.get());
        EVP_PKEY_keygen(context, &made);
        EVP_PKEY_CTX_free(context);
        RsaKey result;
        result.key.reset(made);
        return result;
    }

    static RsaKey fromPem(const std::string& pem)
    {
        const std::unique_ptr<BIO, Free> in(
            BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
        RsaKey result;
        result.key.reset(PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr));
        return result;
    }

    std::string pem() const
    {
        const std::unique_ptr<BIO, Free> out(BIO_new(BIO_s_mem()));
        PEM_write_bio_PrivateKey(out.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
        char* text = nullptr;
        const long length = BIO_get_mem_data(out.get(), &text);
        return {text, static_cast<std::size_t>(length)};
    }

    Bytes modulus() const { return number("n"); }
    Bytes publicExponent() const { return number("e"); }
    Bytes privateExponent() const { return number("d"); }

    /// The public operation on 256 bytes, by OpenSSL.
    Bytes publicOperation(const Bytes& in) const
    {
        EVP_PKEY_CTX* const context = EVP_PKEY_CTX_new(key.get(), nullptr);
        Bytes out(256);
        std::size_t size = out.size();
        const bool worked = EVP_PKEY_encrypt_init(context) == 1 &&
                            EVP_PKEY_CTX_set_rsa_padding(context, RSA_NO_PADDING) == 1 &&
                            EVP_PKEY_encrypt(context, out.data(), &size, in.data(), in.size()) == 1;
        EVP_PKEY_CTX_free(context);
        return worked ? out : Bytes();
    }

private:
    Bytes number(const char* name) const
    {
        BIGNUM* found = nullptr;
        EVP_PKEY_get_bn_param(key.get(), name, &found);
        const std::unique_ptr<BIGNUM, Free> hold(found);
        Bytes bytes(static_cast<std::size_t>(BN_num_bytes(found)));
        BN_bn2bin(found, bytes.data());
        return bytes;
    }
};

/// A block with the padding of the service: 0, 1, filling, 0 and so many bytes of content.
inline Bytes paddedBlock(std::size_t content = 51, unsigned char seed = 1)
{
    Bytes block(256, 0xff);
    block[0] = 0;
    block[1] = 1;
    block[256 - content - 1] = 0;
    for (std::size_t i = 256 - content; i < 256; i++)
        block[i] = static_cast<unsigned char>(i * 7 + seed);
    return block;
}

}  // namespace test
