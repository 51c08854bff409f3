// secure_contract_test.cpp - the contract of key store, crypto container and deployment for keys and the
// client, tested on a backend.
#include "rsa_key.h"
#include "secure_device.h"

#include <platform/crypto_container.h>
#include <platform/deployment.h>
#include <platform/secure_storage.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

using test::Bytes;
using test::paddedBlock;
using test::RsaKey;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

TEST_F(ASecureDevice, FillsACredential)
{
    ss_credential_s filled{};
    EXPECT_EQ(ss_init_credential(&filled, 10, 20, 30, 40, 0xffffffff, 1, 0), 0);
    EXPECT_THAT(filled.words, testing::ElementsAre(10, 20, 30, 40, 0xffffffff));
    EXPECT_EQ(filled.kind, 1U);
    EXPECT_EQ(filled.reserved, 0U);
}

TEST_F(ASecureDevice, RefusesACredentialOfAnotherKind)
{
    ss_credential_s filled{};
    EXPECT_EQ(ss_init_credential(nullptr, 1, 2, 3, 4, 5, 1, 0), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_init_credential(&filled, 1, 2, 3, 4, 5, 2, 0), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_init_credential(&filled, 1, 2, 3, 4, 5, 1, 1), SS_ERROR_PARAMETER);
    EXPECT_EQ(filled.words[0], 0U);
}

Bytes withZeroBefore(Bytes number)
{
    number.insert(number.begin(), 257 - number.size(), 0);
    return number;
}

class AKeyStore : public ASecureDevice {
protected:
    int store(const Bytes& modulus, const Bytes& exponent, std::int32_t& id)
    {
        return ss_store_rsa_key(&client, SS_KEY_RSA, SS_KEY_SIGN, modulus.data(), modulus.size(),
                                exponent.data(), exponent.size(), 0, 0, &id, 0, 0);
    }
    int store(const RsaKey& key, std::int32_t& id)
    {
        return store(withZeroBefore(key.modulus()), withZeroBefore(key.privateExponent()), id);
    }
    /// @return the result; empty after a failure, which leaves the block untouched
    Bytes encrypt(std::int32_t id, Bytes block, int* error = nullptr)
    {
        const Bytes before = block;
        unsigned char* at = block.data();
        std::size_t size = block.size();
        const int result = ss_encrypt_by_key(&client, id, &at, &size, 0, 0);
        if (error != nullptr)
            *error = result;
        EXPECT_EQ(block, before);
        if (result != 0) {
            EXPECT_EQ(at, block.data());
            EXPECT_EQ(size, block.size());
            return {};
        }
        EXPECT_NE(at, block.data());
        Bytes out(at, at + size);
        ss_free_buffer(at);
        return out;
    }
};

TEST_F(AKeyStore, EncryptsABlockWithAStoredKey)
{
    const RsaKey key = RsaKey::make();
    std::int32_t id = 7;
    ASSERT_EQ(store(key, id), 0);
    EXPECT_EQ(id, 7);
    for (const std::size_t content : {std::size_t{0}, std::size_t{36}, std::size_t{245}}) {
        const Bytes result = encrypt(7, paddedBlock(content));
        ASSERT_EQ(result.size(), 256U);
        EXPECT_EQ(key.publicOperation(result), paddedBlock(content));
    }
    EXPECT_THAT(arrange::secureErrors(), IsEmpty());
}

TEST_F(AKeyStore, DoesABlockWithoutPadding)
{
    const RsaKey key = RsaKey::make();
    std::int32_t id = 7;
    ASSERT_EQ(store(key, id), 0);
    Bytes block(256, 0x5a);
    block[0] = 0;
    EXPECT_EQ(key.publicOperation(encrypt(7, block)), block);
}

TEST_F(AKeyStore, TakesKeyPartsWithAndWithoutAZeroByteBefore)
{
    const RsaKey key = RsaKey::make();
    std::int32_t id = 7;
    EXPECT_EQ(store(key.modulus(), key.privateExponent(), id), 0);
    EXPECT_EQ(key.publicOperation(encrypt(7, paddedBlock())), paddedBlock());
    EXPECT_EQ(store(withZeroBefore(key.modulus()), key.privateExponent(), id), 0);
    EXPECT_EQ(key.publicOperation(encrypt(7, paddedBlock())), paddedBlock());
}

TEST_F(AKeyStore, TakesEveryPublicExponentInUse)
{
    for (const unsigned exponent : {3U, 17U, 257U}) {
        const RsaKey key = RsaKey::make(2048, exponent);
        std::int32_t id = 7;
        EXPECT_EQ(store(key, id), 0) << exponent;
        EXPECT_EQ(key.publicOperation(encrypt(7, paddedBlock())), paddedBlock());
    }
}

TEST_F(AKeyStore, ChoosesAnIdWhenAnyWillDo)
{
    const RsaKey first = RsaKey::make();
    const RsaKey second = RsaKey::make();
    std::int32_t firstId = 0;
    std::int32_t secondId = 0;
    ASSERT_EQ(store(first, firstId), 0);
    ASSERT_EQ(store(second, secondId), 0);
    EXPECT_NE(firstId, 0);
    EXPECT_NE(secondId, 0);
    EXPECT_NE(firstId, secondId);
    EXPECT_EQ(first.publicOperation(encrypt(firstId, paddedBlock())), paddedBlock());
    EXPECT_EQ(second.publicOperation(encrypt(secondId, paddedBlock())), paddedBlock());
}

TEST_F(AKeyStore, ReplacesAKeyOfTheSameId)
{
    const RsaKey second = RsaKey::make();
    std::int32_t id = 7;
    ASSERT_EQ(store(RsaKey::make(), id), 0);
    ASSERT_EQ(store(second, id), 0);
    EXPECT_EQ(second.publicOperation(encrypt(7, paddedBlock())), paddedBlock());
    EXPECT_EQ(ss_remove_key(&client, 7), 0);
    int error = 0;
    encrypt(7, paddedBlock(), &error);
    EXPECT_EQ(error, SS_ERROR_NOT_FOUND);
}

TEST_F(AKeyStore, RefusesWhatIsNoKeyAndKeepsTheOldOne)
{
    const RsaKey key = RsaKey::make();
    const RsaKey other = RsaKey::make();
    const RsaKey small = RsaKey::make(1024);
    std::int32_t id = 7;
    ASSERT_EQ(store(key, id), 0);
    EXPECT_EQ(store(key.modulus(), other.privateExponent(), id), SS_ERROR_PARAMETER);
    EXPECT_EQ(store(small.modulus(), small.privateExponent(), id), SS_ERROR_PARAMETER);
    EXPECT_EQ(store(key.modulus(), Bytes(257, 0), id), SS_ERROR_PARAMETER);
    EXPECT_EQ(store(Bytes(257, 0), key.privateExponent(), id), SS_ERROR_PARAMETER);
    EXPECT_EQ(store(key.modulus(), Bytes{1}, id), SS_ERROR_PARAMETER);
    EXPECT_EQ(store(Bytes(258, 1), key.privateExponent(), id), SS_ERROR_PARAMETER);
    EXPECT_EQ(id, 7);
    EXPECT_EQ(key.publicOperation(encrypt(7, paddedBlock())), paddedBlock());
}

TEST_F(AKeyStore, RefusesWrongArguments)
{
    const RsaKey key = RsaKey::make();
    const Bytes n = key.modulus();
    const Bytes d = key.privateExponent();
    const ss_credential_s nobody{};
    std::int32_t id = 7;
    const auto storeAs = [&](const ss_credential_s* who, int type, int use, std::int32_t* wanted) {
        return ss_store_rsa_key(who, type, use, n.data(), n.size(), d.data(), d.size(), 0, 0,
                                wanted, 0, 0);
    };
    EXPECT_EQ(storeAs(nullptr, SS_KEY_RSA, SS_KEY_SIGN, &id), SS_ERROR_PARAMETER);
    EXPECT_EQ(storeAs(&nobody, SS_KEY_RSA, SS_KEY_SIGN, &id), SS_ERROR_PARAMETER);
    EXPECT_EQ(storeAs(&client, 1, SS_KEY_SIGN, &id), SS_ERROR_PARAMETER);
    EXPECT_EQ(storeAs(&client, SS_KEY_RSA, 1, &id), SS_ERROR_PARAMETER);
    EXPECT_EQ(storeAs(&client, SS_KEY_RSA, SS_KEY_SIGN, nullptr), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_store_rsa_key(&client, SS_KEY_RSA, SS_KEY_SIGN, nullptr, 257, d.data(), d.size(),
                               0, 0, &id, 0, 0),
              SS_ERROR_PARAMETER);

    unsigned char bytes[256] = {0, 1};
    unsigned char* block = bytes;
    unsigned char* none = nullptr;
    std::size_t size = 256;
    std::size_t wrongSize = 255;
    EXPECT_EQ(ss_encrypt_by_key(nullptr, 7, &block, &size, 0, 0), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_encrypt_by_key(&nobody, 7, &block, &size, 0, 0), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_encrypt_by_key(&client, 7, nullptr, &size, 0, 0), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_encrypt_by_key(&client, 7, &none, &size, 0, 0), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_encrypt_by_key(&client, 7, &block, nullptr, 0, 0), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_encrypt_by_key(&client, 7, &block, &wrongSize, 0, 0), SS_ERROR_PARAMETER);
    EXPECT_EQ(ss_remove_key(nullptr, 7), SS_ERROR_PARAMETER);
    EXPECT_EQ(block, bytes);
}

TEST_F(AKeyStore, DoesNoBlockThatIsNotBelowTheModulus)
{
    std::int32_t id = 7;
    ASSERT_EQ(store(RsaKey::make(), id), 0);
    int error = 0;
    EXPECT_THAT(encrypt(7, Bytes(256, 0xff), &error), IsEmpty());
    EXPECT_NE(error, 0);
    EXPECT_THAT(encrypt(7, paddedBlock(), &error), Not(IsEmpty()));
}

TEST_F(AKeyStore, FindsNoKeyThatIsNotThere)
{
    int error = 0;
    EXPECT_THAT(encrypt(7, paddedBlock(), &error), IsEmpty());
    EXPECT_EQ(error, SS_ERROR_NOT_FOUND);
    EXPECT_EQ(ss_remove_key(&client, 7), SS_ERROR_NOT_FOUND);
}

TEST_F(AKeyStore, HasNegativeIdsToo)
{
    const RsaKey key = RsaKey::make();
    std::int32_t id = -9;
    ASSERT_EQ(store(key, id), 0);
    EXPECT_EQ(id, -9);
    EXPECT_EQ(key.publicOperation(encrypt(-9, paddedBlock())), paddedBlock());
}

TEST_F(AKeyStore, ServesTwoThreadsAtOnce)
{
    const RsaKey key = RsaKey::make();
    std::int32_t id = 7;
    ASSERT_EQ(store(key, id), 0);
    std::atomic<int> right{0};
    const auto hammer = [&](unsigned char seed) {
        for (int i = 0; i < 60; i++) {
            const Bytes block = paddedBlock(40, static_cast<unsigned char>(seed + i));
            right += key.publicOperation(encrypt(7, block)) == block ? 1 : 0;
        }
    };
    std::thread one(hammer, 1);
    std::thread two(hammer, 101);
    one.join();
    two.join();
    EXPECT_EQ(right, 120);
}

class ACryptoContainer : public AKeyStore {
protected:
    void SetUp() override
    {
        AKeyStore::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        ASSERT_EQ(create_CryptoCoreContainer(CC_RSA, &container), 0);
        device = RsaKey::fromPem(arrange::deviceKeyPem());
        ASSERT_NE(device.key, nullptr);
    }
    void TearDown() override { destroy_CryptoCoreContainer(container); }

    int set(const RsaKey& key) const
    {
        const Bytes n = withZeroBefore(key.modulus());
        const Bytes e = key.publicExponent();
        return container->set_public_key(container, n.data(), n.size(), e.data(), e.size());
    }
    static Bytes material()
    {
        unsigned char* sealed = nullptr;
        std::size_t size = 0;
        EXPECT_EQ(deployment_get_key_material(&sealed, &size), 0);
        Bytes bytes(sealed, sealed + size);
        free(sealed);
        return bytes;
    }
    int open(const Bytes& sealed)
    {
        return container->open_key_material(container, sealed.data(), sealed.size(), modulus.data(),
                                            exponent.data());
    }

    CryptoCoreContainer* container = nullptr;
    RsaKey device;
    Bytes modulus = Bytes(257, 0xee);
    Bytes exponent = Bytes(257, 0xee);
};

TEST_F(ACryptoContainer, IsMadeForRsaOnly)
{
    CryptoCoreContainer* none = nullptr;
    EXPECT_GT(create_CryptoCoreContainer(1, &none), 0);
    EXPECT_GT(create_CryptoCoreContainer(CC_RSA, nullptr), 0);
    EXPECT_EQ(none, nullptr);
    destroy_CryptoCoreContainer(nullptr);
}

TEST_F(ACryptoContainer, UndoesTheKeyStoresOperation)
{
    std::int32_t id = 7;
    ASSERT_EQ(store(device, id), 0);
    ASSERT_EQ(set(device), 0);
    const Bytes in = encrypt(7, paddedBlock());
    Bytes out(256);
    std::size_t size = out.size();
    EXPECT_EQ(container->ae_decrypt(container, in.data(), in.size(), out.data(), &size), 0);
    EXPECT_EQ(size, 256U);
    EXPECT_EQ(out, paddedBlock());
}

TEST_F(ACryptoContainer, DecryptsNothingWithoutAKeyOrWithWrongSizes)
{
    const Bytes in = paddedBlock();
    const Bytes tooLarge(256, 0xff);
    Bytes out(256);
    std::size_t size = 256;
    std::size_t small = 255;
    EXPECT_GT(container->ae_decrypt(container, in.data(), 256, out.data(), &size), 0);
    ASSERT_EQ(set(device), 0);
    EXPECT_EQ(container->ae_decrypt(container, in.data(), 256, out.data(), &size), 0);
    EXPECT_GT(container->ae_decrypt(container, in.data(), 255, out.data(), &size), 0);
    EXPECT_GT(container->ae_decrypt(container, in.data(), 256, out.data(), &small), 0);
    EXPECT_GT(container->ae_decrypt(container, tooLarge.data(), 256, out.data(), &size), 0);
    EXPECT_GT(container->ae_decrypt(container, nullptr, 256, out.data(), &size), 0);
    EXPECT_GT(container->ae_decrypt(container, in.data(), 256, nullptr, &size), 0);
}

TEST_F(ACryptoContainer, TakesNoPublicKeyThatIsNoneOf2048Bits)
{
    const Bytes n = device.modulus();
    const Bytes e = device.publicExponent();
    const Bytes two = {2};
    const RsaKey small = RsaKey::make(1024);
    EXPECT_GT(set(small), 0);
    EXPECT_GT(container->set_public_key(container, nullptr, 256, e.data(), e.size()), 0);
    EXPECT_GT(container->set_public_key(container, n.data(), n.size(), nullptr, 3), 0);
    EXPECT_GT(container->set_public_key(container, n.data(), n.size(), two.data(), 1), 0);
}

TEST_F(ACryptoContainer, OpensKeyMaterialThatTheKeyStoreTakes)
{
    ASSERT_EQ(set(device), 0);
    ASSERT_EQ(open(material()), 0);
    EXPECT_EQ(modulus, withZeroBefore(device.modulus()));
    EXPECT_EQ(exponent, withZeroBefore(device.privateExponent()));
    std::int32_t id = 7;
    EXPECT_EQ(store(modulus, exponent, id), 0);
    EXPECT_EQ(device.publicOperation(encrypt(7, paddedBlock())), paddedBlock());
}

TEST_F(ACryptoContainer, OpensKeyMaterialForItsOwnPublicKeyOnly)
{
    const Bytes sealed = material();
    EXPECT_GT(open(sealed), 0);
    ASSERT_EQ(set(RsaKey::make()), 0);
    EXPECT_GT(open(sealed), 0);
    EXPECT_EQ(modulus, Bytes(257, 0xee));
    EXPECT_EQ(exponent, Bytes(257, 0xee));
}

TEST_F(ACryptoContainer, OpensNoKeyMaterialWithoutItsArguments)
{
    ASSERT_EQ(set(device), 0);
    const Bytes sealed = material();
    unsigned char* const n = modulus.data();
    unsigned char* const d = exponent.data();
    EXPECT_GT(container->open_key_material(container, nullptr, sealed.size(), n, d), 0);
    EXPECT_GT(container->open_key_material(container, sealed.data(), sealed.size(), nullptr, d), 0);
    EXPECT_GT(container->open_key_material(container, sealed.data(), sealed.size(), n, nullptr), 0);
    EXPECT_EQ(modulus, Bytes(257, 0xee));
}

TEST_F(ACryptoContainer, OpensNoKeyMaterialThatWasChangedAnywhere)
{
    ASSERT_EQ(set(device), 0);
    const Bytes sealed = material();
    for (std::size_t i = 0; i < sealed.size(); i++) {
        Bytes changed = sealed;
        changed[i] ^= 1;
        EXPECT_GT(open(changed), 0) << "byte " << i;
    }
    EXPECT_GT(open(Bytes(sealed.begin(), sealed.end() - 1)), 0);
    EXPECT_GT(open(Bytes()), 0);
    EXPECT_EQ(exponent, Bytes(257, 0xee));
}

TEST_F(ASecureDevice, IsToldItsCredentialAndKeyId)
{
    std::uint32_t words[5] = {};
    std::int32_t id = 0;
    EXPECT_EQ(deployment_get_credential(words), 0);
    EXPECT_THAT(words, testing::ElementsAre(1, 2, 3, 4, 5));
    EXPECT_EQ(deployment_get_key_id(&id), 0);
    EXPECT_EQ(id, 7);
    EXPECT_THAT(arrange::secureErrors(), IsEmpty());
}

TEST_F(ASecureDevice, IsToldNoCredentialOrKeyIdThatIsNotSetAndLogsIt)
{
    arrange::credential(false);
    arrange::keyId(std::nullopt);
    std::uint32_t words[5] = {9, 9, 9, 9, 9};
    std::int32_t id = 9;
    EXPECT_NE(deployment_get_credential(words), 0);
    EXPECT_NE(deployment_get_key_id(&id), 0);
    EXPECT_THAT(words, testing::Each(9U));
    EXPECT_EQ(id, 9);
    EXPECT_THAT(arrange::secureErrors(), Contains(HasSubstr("credential is not set")));
    EXPECT_THAT(arrange::secureErrors(), Contains(HasSubstr("key_id is not set")));
}

TEST_F(ASecureDevice, IsNeverToldKeyIdZero)
{
    arrange::keyId(0);
    std::int32_t id = 9;
    EXPECT_NE(deployment_get_key_id(&id), 0);
    EXPECT_EQ(id, 9);
    EXPECT_THAT(arrange::secureErrors(), Contains(HasSubstr("key_id")));
}

TEST_F(ASecureDevice, MayHaveNoKeyMaterial)
{
    arrange::keyMaterial(false);
    unsigned char* sealed = nullptr;
    std::size_t size = 0;
    EXPECT_NE(deployment_get_key_material(&sealed, &size), 0);
    EXPECT_EQ(sealed, nullptr);
}

}  // namespace
