// platform/common/raw_rsa.cpp - RSA with 2048 bits on bare numbers.
#include "raw_rsa.h"

#include <openssl/core_names.h>
#include <openssl/rsa.h>

#include <algorithm>

namespace rawrsa {

namespace {

using Number = openssl::Owner<BIGNUM>;
using Context = openssl::Owner<BN_CTX>;

constexpr int kBits = 2048;
constexpr BN_ULONG kPublicExponents[] = {65537, 3, 17, 257};
/// Each base finds the primes with a probability of at least 1/2.
constexpr BN_ULONG kBaseLimit = 200;

Number empty()
{
    Number number(BN_new());
    if (number == nullptr)
        throw std::bad_alloc();
    return number;
}

Number numberOf(const unsigned char* bytes, std::size_t size)
{
    Number number(BN_bin2bn(bytes, static_cast<int>(size), nullptr));
    if (number == nullptr)
        throw std::bad_alloc();
    return number;
}

Number numberOf(const secret::Bytes& bytes)
{
    return numberOf(bytes.data(), bytes.size());
}

secret::Bytes bytesOf(const Number& number)
{
    secret::Bytes bytes(static_cast<std::size_t>(BN_num_bytes(number.get())));
    BN_bn2bin(number.get(), bytes.data());
    return bytes;
}

Context context()
{
    Context made(BN_CTX_secure_new());
    if (made == nullptr)
        throw std::bad_alloc();
    return made;
}

/// out = base to the power of exponent, modulo modulus.
/// @return false when the base is not below the modulus
bool raise(const Number& base, const Number& exponent, const Number& modulus, unsigned char* out)
{
    if (BN_cmp(base.get(), modulus.get()) >= 0)
        return false;
    const Number result = empty();
    const Context room = context();
    return BN_mod_exp_mont_consttime(result.get(), base.get(), exponent.get(), modulus.get(),
                                     room.get(), nullptr) == 1 &&
           BN_bn2binpad(result.get(), out, kBlockSize) == static_cast<int>(kBlockSize);
}

/// Looks for a square root of 1 that is neither 1 nor -1: it shares a prime with the modulus.
/// @param odd the odd part of (public exponent times private exponent - 1)
/// @param doublings the power of two that was taken out of that number
bool primeFrom(BN_ULONG base, const Number& odd, int doublings, const Number& modulus,
               const Number& prime, BN_CTX* room)
{
    const Number one = empty();
    const Number minusOne = empty();
    const Number x = empty();
    const Number square = empty();
    const Number start = empty();
    if (!BN_one(one.get()) || !BN_sub(minusOne.get(), modulus.get(), one.get()) ||
        !BN_set_word(start.get(), base) ||
        !BN_mod_exp_mont_consttime(x.get(), start.get(), odd.get(), modulus.get(), room, nullptr))
        return false;
    for (int i = 0; i < doublings; i++) {
        if (BN_is_one(x.get()) || BN_cmp(x.get(), minusOne.get()) == 0)
            return false;
        if (!BN_mod_sqr(square.get(), x.get(), modulus.get(), room))
            return false;
        if (BN_is_one(square.get()))
            return BN_sub_word(x.get(), 1) == 1 &&
                   BN_gcd(prime.get(), x.get(), modulus.get(), room) == 1;
        BN_swap(x.get(), square.get());
    }
    return false;
}

bool factor(const Number& modulus, const Number& publicExponent, const Number& privateExponent,
            const Number& prime1, const Number& prime2, BN_CTX* room)
{
    const Number odd = empty();
    if (!BN_mul(odd.get(), publicExponent.get(), privateExponent.get(), room) ||
        !BN_sub_word(odd.get(), 1) || BN_is_zero(odd.get()))
        return false;
    int doublings = 0;
    while (!BN_is_odd(odd.get())) {
        BN_rshift1(odd.get(), odd.get());
        doublings++;
    }
    const Number rest = empty();
    for (BN_ULONG base = 2; base < kBaseLimit; base++) {
        if (primeFrom(base, odd, doublings, modulus, prime1, room))
            return BN_div(prime2.get(), rest.get(), modulus.get(), prime1.get(), room) == 1 &&
                   BN_is_zero(rest.get());
    }
    return false;
}

/// True if the private exponent undoes the public one.
bool belongTogether(const Number& modulus, const Number& publicExponent,
                    const Number& privateExponent, BN_CTX* room)
{
    const Number start = empty();
    const Number there = empty();
    const Number back = empty();
    return BN_set_word(start.get(), 0x5a5a5a5a) &&
           BN_mod_exp_mont_consttime(there.get(), start.get(), privateExponent.get(), modulus.get(),
                                     room, nullptr) &&
           BN_mod_exp(back.get(), there.get(), publicExponent.get(), modulus.get(), room) &&
           BN_cmp(start.get(), back.get()) == 0;
}

/// @return exponent modulo (prime - 1)
Number reduced(const Number& exponent, const Number& prime, BN_CTX* room)
{
    Number result = empty();
    const Number less(BN_dup(prime.get()));
    if (less == nullptr || !BN_sub_word(less.get(), 1) ||
        !BN_mod(result.get(), exponent.get(), less.get(), room))
        throw std::bad_alloc();
    return result;
}

Number part(EVP_PKEY* key, bool ofModulus, bool ofPrivate)
{
    const char* const name = ofModulus   ? OSSL_PKEY_PARAM_RSA_N
                             : ofPrivate ? OSSL_PKEY_PARAM_RSA_D
                                         : OSSL_PKEY_PARAM_RSA_E;
    BIGNUM* number = nullptr;
    EVP_PKEY_get_bn_param(key, name, &number);
    return Number(number);
}

EVP_PKEY* recordOf(const Number& modulus, const Number& exponent)
{
    const openssl::Owner<OSSL_PARAM_BLD> builder(OSSL_PARAM_BLD_new());
    const openssl::Owner<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA, nullptr));
    if (builder == nullptr || context == nullptr ||
        !OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, modulus.get()) ||
        !OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, exponent.get()))
        return nullptr;
    const openssl::Owner<OSSL_PARAM> parts(OSSL_PARAM_BLD_to_param(builder.get()));
    EVP_PKEY* key = nullptr;
    if (parts == nullptr || EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parts.get()) != 1)
        return nullptr;
    return key;
}

}  // namespace

std::optional<PublicKey> publicKey(const unsigned char* modulus, std::size_t modulusSize,
                                   const unsigned char* exponent, std::size_t exponentSize)
{
    if (modulus == nullptr || exponent == nullptr || modulusSize > kPartSize ||
        exponentSize > kPartSize)
        return std::nullopt;
    const Number n = numberOf(modulus, modulusSize);
    const Number e = numberOf(exponent, exponentSize);
    if (BN_num_bits(n.get()) != kBits || !BN_is_odd(n.get()) || !BN_is_odd(e.get()) ||
        BN_is_one(e.get()) || BN_cmp(e.get(), n.get()) >= 0)
        return std::nullopt;
    return PublicKey{bytesOf(n), bytesOf(e)};
}

secret::Bytes paddedBlock(const unsigned char* content, std::size_t size)
{
    secret::Bytes block(kBlockSize, 0xff);
    block[0] = 0;
    block[1] = 1;
    block[kBlockSize - size - 1] = 0;
    std::copy(content, content + size, block.end() - static_cast<std::ptrdiff_t>(size));
    return block;
}

bool publicOperation(const PublicKey& key, const unsigned char* in, unsigned char* out)
{
    return raise(numberOf(in, kBlockSize), numberOf(key.exponent), numberOf(key.modulus), out);
}

bool privateOperation(const PrivateKey& key, const unsigned char* in, unsigned char* out)
{
    return raise(numberOf(in, kBlockSize), numberOf(key.privateExponent), numberOf(key.modulus),
                 out);
}

std::optional<PrivateKey> recover(const unsigned char* modulus, std::size_t modulusSize,
                                  const unsigned char* exponent, std::size_t exponentSize)
{
    const auto bare = publicKey(modulus, modulusSize, exponent, exponentSize);
    if (!bare)
        return std::nullopt;
    const Number n = numberOf(bare->modulus);
    const Number d = numberOf(bare->exponent);
    const Context room = context();
    for (const BN_ULONG candidate : kPublicExponents) {
        const Number e = empty();
        Number p = empty();
        Number q = empty();
        if (!BN_set_word(e.get(), candidate) || !belongTogether(n, e, d, room.get()) ||
            !factor(n, e, d, p, q, room.get()))
            continue;
        if (BN_cmp(p.get(), q.get()) < 0)
            p.swap(q);
        const Number inverse(BN_mod_inverse(nullptr, q.get(), p.get(), room.get()));
        if (inverse == nullptr)
            return std::nullopt;
        return PrivateKey{bytesOf(n),
                          bytesOf(e),
                          bytesOf(d),
                          bytesOf(p),
                          bytesOf(q),
                          bytesOf(reduced(d, p, room.get())),
                          bytesOf(reduced(d, q, room.get())),
                          bytesOf(inverse)};
    }
    return std::nullopt;
}

std::optional<PrivateKey> numbersOf(EVP_PKEY* key)
{
    const Number n = part(key, true, false);
    const Number d = part(key, false, true);
    if (n == nullptr || d == nullptr)
        return std::nullopt;
    const secret::Bytes modulus = bytesOf(n);
    const secret::Bytes exponent = bytesOf(d);
    return recover(modulus.data(), modulus.size(), exponent.data(), exponent.size());
}

std::optional<PublicKey> publicNumbersOf(EVP_PKEY* key)
{
    const Number n = part(key, true, false);
    const Number e = part(key, false, false);
    if (n == nullptr || e == nullptr)
        return std::nullopt;
    const secret::Bytes modulus = bytesOf(n);
    const secret::Bytes exponent = bytesOf(e);
    return publicKey(modulus.data(), modulus.size(), exponent.data(), exponent.size());
}

openssl::Owner<EVP_PKEY> record(const PublicKey& key)
{
    openssl::Owner<EVP_PKEY> made(recordOf(numberOf(key.modulus), numberOf(key.exponent)));
    if (made == nullptr)
        throw std::bad_alloc();
    return made;
}

std::string publicKeyInfo(const PublicKey& key)
{
    unsigned char* der = nullptr;
    const int size = i2d_PUBKEY(record(key).get(), &der);
    if (size <= 0)
        throw std::bad_alloc();
    std::string bytes(reinterpret_cast<char*>(der), static_cast<std::size_t>(size));
    OPENSSL_free(der);
    return bytes;
}

}  // namespace rawrsa
