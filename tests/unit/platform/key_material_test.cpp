// key_material_test.cpp - sealed key material: the device's secret, and numbers with leading zeros; the seal's parts
// against published values.
#include "keystore/key_material.h"

#include "common/hex.h"
#include "device_conf.h"
#include "keystore/seal.h"
#include "keystore/secure_error.h"
#include "rsa_key.h"

#include <platform/crypto_container.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

namespace {

class KeyMaterial : public testing::Test {
protected:
    secret::Bytes readSecret(std::size_t size) const
    {
        const std::string path = folder.path() + "/seal.key";
        std::ofstream(path, std::ios::binary) << std::string(size, 's');
        chmod(path.c_str(), 0600);
        return keymaterial::readSealKey(path);
    }

    device::Folder folder;
};

TEST_F(KeyMaterial, NeedsASecretOf32BytesOrMore)
{
    EXPECT_EQ(readSecret(32).size(), 32U);
    EXPECT_EQ(readSecret(keymaterial::kSecretLimit).size(), keymaterial::kSecretLimit);
    try {
        readSecret(31);
        FAIL();
    } catch (const secure::Error& error) {
        EXPECT_EQ(error.code(), SS_ERROR_ACCESS);
        EXPECT_THAT(error.what(), testing::HasSubstr("seal.key holds under 32 bytes"));
    }
    try {
        readSecret(keymaterial::kSecretLimit + 1);
        FAIL();
    } catch (const secure::Error& error) {
        EXPECT_EQ(error.code(), SS_ERROR_BROKEN);
    }
}

TEST_F(KeyMaterial, ReadsItsSecretWithoutStandardInput)
{
    readSecret(32);
    const pid_t child = fork();
    if (child == 0) {
        // The next descriptor is 0.
        close(STDIN_FILENO);
        try {
            _exit(keymaterial::readSealKey(folder.path() + "/seal.key").size() == 32 ? 0 : 1);
        } catch (const secure::Error&) {
            _exit(2);
        }
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(KeyMaterial, HasNumbersOf256BytesAlsoWhenTheyAreShorter)
{
    const test::RsaKey key = test::RsaKey::make();
    rawrsa::PrivateKey numbers = rawrsa::numbersOf(key.key.get()).value();
    numbers.privateExponent.assign(250, 0x5a);
    const secret::Bytes secret = readSecret(32);
    const std::string sealed = keymaterial::close(secret, numbers);
    ASSERT_EQ(sealed.size(), keymaterial::kSize);
    const auto parts =
        keymaterial::open(secret, numbers.publicKey(),
                          reinterpret_cast<const unsigned char*>(sealed.data()), sealed.size());
    EXPECT_EQ(parts.modulus, numbers.modulus);
    secret::Bytes whole(6, 0);
    whole.insert(whole.end(), numbers.privateExponent.begin(), numbers.privateExponent.end());
    EXPECT_EQ(parts.exponent, whole);
}

TEST_F(KeyMaterial, IsNotOpenedWithoutASecretInTheSettingsAndTheLogSaysSo)
{
    device::Conf conf;
    conf.set("keystore", "seal_key", std::nullopt);
    const device::CapturedLog log;
    CryptoCoreContainer* container = nullptr;
    ASSERT_EQ(create_CryptoCoreContainer(CC_RSA, &container), 0);
    const test::RsaKey key = test::RsaKey::make();
    const test::Bytes n = key.modulus();
    const test::Bytes e = key.publicExponent();
    ASSERT_EQ(container->set_public_key(container, n.data(), n.size(), e.data(), e.size()), 0);
    const test::Bytes sealed(keymaterial::kSize);
    unsigned char modulus[257];
    unsigned char exponent[257];
    EXPECT_EQ(
        container->open_key_material(container, sealed.data(), sealed.size(), modulus, exponent),
        SS_ERROR_ACCESS);
    destroy_CryptoCoreContainer(container);
    EXPECT_THAT(log.text(), testing::HasSubstr("[keystore] seal_key is not set"));
    EXPECT_THAT(log.text(), testing::HasSubstr("sealed key material cannot be opened"));
}

TEST_F(KeyMaterial, IsNotOpenedWithAnotherSecret)
{
    const test::RsaKey key = test::RsaKey::make();
    const rawrsa::PrivateKey numbers = rawrsa::numbersOf(key.key.get()).value();
    const secret::Bytes secret = readSecret(32);
    const std::string sealed = keymaterial::close(secret, numbers);
    for (std::size_t i = 0; i < secret.size(); i++) {
        secret::Bytes other = secret;
        other[i] ^= 1;
        try {
            keymaterial::open(other, numbers.publicKey(),
                              reinterpret_cast<const unsigned char*>(sealed.data()), sealed.size());
            ADD_FAILURE() << "opened with another byte " << i;
        } catch (const secure::Error& error) {
            EXPECT_EQ(error.code(), SS_ERROR_BROKEN);
        }
    }
}

TEST_F(KeyMaterial, IsAnotherEachTime)
{
    const test::RsaKey key = test::RsaKey::make();
    const rawrsa::PrivateKey numbers = rawrsa::numbersOf(key.key.get()).value();
    const secret::Bytes secret = readSecret(32);
    const std::string one = keymaterial::close(secret, numbers);
    const std::string two = keymaterial::close(secret, numbers);
    EXPECT_EQ(one.substr(0, 12), two.substr(0, 12)) << "what it is";
    EXPECT_NE(one.substr(12, 32), two.substr(12, 32)) << "the salt";
    EXPECT_EQ(one.substr(44, 32), two.substr(44, 32)) << "whose it is";
    EXPECT_NE(one.substr(76), two.substr(76));
}

/// The first 32 bytes of RFC 5869's first test case.
TEST(Seal, DerivesTheKeyThatRfc5869Gives)
{
    std::string salt;
    for (char byte = 0; byte <= 0x0c; byte++)
        salt += byte;
    const std::string info = "\xf0\xf1\xf2\xf3\xf4\xf5\xf6\xf7\xf8\xf9";
    const secret::Bytes key = seal::derive(secret::Bytes(22, 0x0b), salt, info);
    EXPECT_EQ(hex(std::string(key.begin(), key.end())),
              "3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf");
}

TEST(Seal, HasTheDigestThatFips180Gives)
{
    EXPECT_EQ(hex(seal::digest("abc")),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Seal, OpensWithItsOwnKeyAndAssociatedDataOnly)
{
    const secret::Bytes key(seal::kKeySize, 1);
    const secret::Bytes other(seal::kKeySize, 2);
    const unsigned char content[] = {5, 6, 7};
    const std::string sealed = seal::close(key, "associated", content, sizeof content);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(sealed.data());
    EXPECT_EQ(seal::open(key, "associated", bytes, sealed.size()), (secret::Bytes{5, 6, 7}));
    EXPECT_EQ(seal::open(other, "associated", bytes, sealed.size()), std::nullopt);
    EXPECT_EQ(seal::open(key, "other", bytes, sealed.size()), std::nullopt);
    EXPECT_EQ(seal::open(secret::Bytes(31, 1), "associated", bytes, sealed.size()), std::nullopt);
    EXPECT_EQ(seal::open(key, "associated", bytes, seal::kOverhead - 1), std::nullopt);
    EXPECT_THROW(seal::close(secret::Bytes(31, 1), "associated", content, 3), secure::Error);
    EXPECT_NE(seal::close(key, "associated", content, sizeof content), sealed) << "the nonce";
}

}  // namespace
