// key_material_test.cpp - sealed key material: the size of the device's secret, and numbers with leading zeros.
#include "keystore/key_material.h"

#include "device_conf.h"
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
    const pid_t child = fork();
    if (child == 0) {
        // The next descriptor is 0.
        readSecret(32);
        close(STDIN_FILENO);
        _exit(keymaterial::readSealKey(folder.path() + "/seal.key").size() == 32 ? 0 : 1);
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

}  // namespace
