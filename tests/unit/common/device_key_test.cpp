// device_key_test.cpp - the constructor of CBillingSecureStorageUtil finds, verifies and, where it is
// missing, stores the device's key. It does nothing while the store cannot be reached.
#include "BillingSecureStorageUtil.h"
#include "BillingTaskBase.h"
#include "device_certificate_file.h"
#include "log_matchers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

const LinesOf KEY{"BillingSecureStorageUtilKey.cpp"};

Line Debug(const std::string& strText)
{
    return KEY.debug("CBillingSecureStorageUtil", strText);
}
Line Info(const std::string& strText)
{
    return KEY.info("CBillingSecureStorageUtil", strText);
}
Line Error(const std::string& strText)
{
    return KEY.error("CBillingSecureStorageUtil", strText);
}

}  // namespace

extern "C" {
void __real_OPENSSL_cleanse(void* memory, std::size_t size);
void __wrap_OPENSSL_cleanse(void* memory, std::size_t size)
{
    const auto* pBytes = static_cast<const unsigned char*>(memory);
    const bool bSecret = std::any_of(pBytes, pBytes + size, [](int c) { return c != 0; });
    Note("wipe " + std::to_string(size) + (bSecret ? " bytes" : " bytes that hold nothing"));
    __real_OPENSSL_cleanse(memory, size);
}
}

namespace {

Line CannotProcess(int iError)
{
    return Error("Cannot process with KeyStorage {" + std::to_string(iError) +
                 "}. Possibly the key is not present.");
}

// Lines for a container that receives the certificate's key.
std::vector<Line> Reference()
{
    return {Debug("Set CC key pair"), Debug("Set CC key pair result 0")};
}

// Lines of a verification that finds the key valid.
std::vector<Line> Verified()
{
    return {Info("Verify the private key"),    Debug("Set CC key pair"),
            Debug("Set CC key pair result 0"), Debug("ae_decrypt returned 0, 256 bytes"),
            Debug("compare in&out 0"),         Info("Private key is valid")};
}

std::vector<Line> Joined(std::initializer_list<std::vector<Line>> parts)
{
    std::vector<Line> all;
    for (const auto& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

class TheDeviceKey : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::platform().reset();
        m_iBuffersBefore = fake::platform().buffersOut();
        m_iContainersBefore = fake::platform().containersOut();
        m_oFile.holdsTheDevices();
    }

    void TearDown() override
    {
        EXPECT_EQ(fake::platform().buffersOut(), m_iBuffersBefore);
        EXPECT_EQ(fake::platform().containersOut(), m_iContainersBefore);
        EXPECT_EQ(ERR_peek_error(), 0u);
    }

    // Makes the instance, after earlier calls and lines are forgotten.
    void start()
    {
        fake::platform().clearLog();
        fake::platform().clearCalls();
        m_poUtil = std::make_unique<CBillingSecureStorageUtil>();
    }

    // Calls of the key store, in order.
    static std::vector<std::string> keyCalls()
    {
        std::vector<std::string> calls;
        for (const std::string& strCall : fake::platform().calls()) {
            if (strCall.rfind("ss_", 0) == 0) {
                calls.push_back(strCall);
            }
        }
        return calls;
    }

    static const fake::SecureCall callOf(const std::string& strFunction)
    {
        for (const fake::SecureCall& call : fake::platform().secureCalls()) {
            if (call.function == strFunction) {
                return call;
            }
        }
        ADD_FAILURE() << "no call of " << strFunction;
        return {};
    }

    DeviceCertificateFile m_oFile;
    std::unique_ptr<CBillingSecureStorageUtil> m_poUtil;
    int m_iBuffersBefore = 0;
    int m_iContainersBefore = 0;
};

TEST_F(TheDeviceKey, IsFoundAndValid)
{
    start();

    EXPECT_EQ(LoggedLines(), Verified());
    EXPECT_THAT(keyCalls(), ElementsAre("ss_init_credential", "ss_encrypt_by_key 7"));
    const std::vector<std::string> calls = fake::platform().calls();
    EXPECT_EQ(std::vector<std::string>(calls.begin(), calls.begin() + 3),
              (std::vector<std::string>{"deployment_get_credential", "ss_init_credential",
                                        "deployment_get_key_id"}));
}

// 0 is the only number that is no id.
TEST_F(TheDeviceKey, IsFoundAndStoredUnderAnIdBelowZero)
{
    fake::platform().keyId(-7);
    fake::platform().storedKey(-7);
    start();
    EXPECT_EQ(LoggedLines(), Verified());

    fake::platform().noStoredKey();
    start();
    EXPECT_EQ(LoggedLines().back(), Info("Private key is valid"));
    EXPECT_THAT(fake::platform().storedKeyIds(), ElementsAre(-7));
}

TEST_F(TheDeviceKey, IsAskedForWithTheFiveWordsFollowedByOneAndZero)
{
    start();

    for (const char* szFunction : {"ss_init_credential", "ss_encrypt_by_key"}) {
        const fake::SecureCall call = callOf(szFunction);
        EXPECT_THAT(call.credential.words, ElementsAre(1, 2, 3, 4, 5)) << szFunction;
        EXPECT_EQ(call.credential.kind, 1u) << szFunction;
        EXPECT_EQ(call.credential.reserved, 0u) << szFunction;
    }
    EXPECT_EQ(callOf("ss_encrypt_by_key").size, 256u);
    EXPECT_TRUE(callOf("ss_encrypt_by_key").restIsZero);
}

TEST_F(TheDeviceKey, IsStoredWhenItIsAbsentAndVerifiedThen)
{
    fake::platform().noStoredKey();

    start();

    EXPECT_EQ(LoggedLines(), Joined({{Info("Verify the private key"), CannotProcess(2)},
                                     Reference(),
                                     {Info("Store key result 0")},
                                     Verified()}));
    EXPECT_THAT(keyCalls(), ElementsAre("ss_init_credential", "ss_encrypt_by_key 7",
                                        "ss_store_rsa_key 7", "ss_encrypt_by_key 7"));
    EXPECT_THAT(fake::platform().storedKeyIds(), ElementsAre(7));
}

TEST_F(TheDeviceKey, IsStoredWithItsTypeUseAndPartsOf257Bytes)
{
    fake::platform().noStoredKey();

    start();

    const fake::SecureCall call = callOf("ss_store_rsa_key");
    EXPECT_THAT(call.credential.words, ElementsAre(1, 2, 3, 4, 5));
    EXPECT_EQ(call.type, 1055);
    EXPECT_EQ(call.use, 1204);
    EXPECT_EQ(call.modulusSize, 257u);
    EXPECT_EQ(call.exponentSize, 257u);
    EXPECT_EQ(call.keyId, 7);
    EXPECT_TRUE(call.restIsZero);
}

// Both parts are wiped whole after the call of the store, also when the store refuses them.
TEST_F(TheDeviceKey, IsWipedFromTheProcessOnceItIsStored)
{
    for (const int iError : {0, 5}) {
        fake::platform().noStoredKey();
        fake::platform().fails("ss_store_rsa_key", iError);
        fake::platform().clearTimeline();

        start();

        EXPECT_THAT(Notes(), ElementsAre("wipe 257 bytes", "wipe 257 bytes"));
        Steps steps = Timeline();
        const auto itStored = std::find(steps.begin(), steps.end(), Asked("ss_store_rsa_key 7"));
        const auto itWiped = std::find(steps.begin(), steps.end(), Did("wipe 257 bytes"));
        ASSERT_NE(itStored, steps.end());
        EXPECT_LT(itStored, itWiped);
    }
}

TEST_F(TheDeviceKey, ReplacesOneThatIsNotTheCertificates)
{
    fake::platform().storedKey(7, test::newRsaKeyPem());

    start();

    const auto lines = LoggedLines();
    EXPECT_THAT(lines, Contains(Error("The stored key is invalid!")));
    const auto verified = Verified();
    ASSERT_GT(lines.size(), verified.size());
    EXPECT_EQ(std::vector<Line>(lines.end() - static_cast<long>(verified.size()), lines.end()),
              verified);
    EXPECT_THAT(keyCalls(), ElementsAre("ss_init_credential", "ss_encrypt_by_key 7",
                                        "ss_store_rsa_key 7", "ss_encrypt_by_key 7"));
}

TEST_F(TheDeviceKey, IsInvalidWhenTheReferenceGivesAnotherBlock)
{
    fake::platform().wrongDecryption(true);
    fake::platform().keyMaterial(std::nullopt);

    start();

    const auto lines = LoggedLines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_THAT(lines[4].strText, ::testing::StartsWith("compare in&out "));
    EXPECT_FALSE(lines[4] == Debug("compare in&out 0"));
    EXPECT_EQ(lines[5], Error("The stored key is invalid!"));
}

TEST_F(TheDeviceKey, IsInvalidWhenTheReferenceCannotUndoIt)
{
    fake::platform().fails("ae_decrypt", 9);
    fake::platform().keyMaterial(std::nullopt);

    start();

    const auto lines = LoggedLines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_THAT(lines[3].strText, ::testing::StartsWith("ae_decrypt returned 9, "));
    EXPECT_EQ(lines[4], Error("failed to decrypt (9)"));
    EXPECT_EQ(lines[5], Error("The stored key is invalid!"));
}

TEST_F(TheDeviceKey, IsVerifiedOnceMoreAndNoMoreWhenStoringDidNotHelp)
{
    fake::platform().wrongBlock(true);

    start();

    EXPECT_THAT(keyCalls(), ElementsAre("ss_init_credential", "ss_encrypt_by_key 7",
                                        "ss_store_rsa_key 7", "ss_encrypt_by_key 7"));
    EXPECT_EQ(LoggedLines().back(), Error("The stored key is invalid!"));
}

TEST_F(TheDeviceKey, StaysMissingOnADeviceWithoutKeyMaterial)
{
    fake::platform().noStoredKey();
    fake::platform().keyMaterial(std::nullopt);

    start();

    EXPECT_THAT(LoggedLines(), ElementsAre(Info("Verify the private key"), CannotProcess(2)));
    EXPECT_THAT(keyCalls(), ElementsAre("ss_init_credential", "ss_encrypt_by_key 7"));
}

TEST_F(TheDeviceKey, IsNotStoredFromMaterialThatDoesNotOpen)
{
    for (const int iError : {5, -5}) {
        fake::platform().noStoredKey();
        fake::platform().fails("open_key_material", iError);

        start();

        EXPECT_EQ(LoggedLines().back(),
                  Error("failed to decrypt (" + std::to_string(iError) + ")"));
        EXPECT_THAT(keyCalls(), Not(Contains("ss_store_rsa_key 7")));
    }
}

TEST_F(TheDeviceKey, IsReportedWhenItCannotBeStored)
{
    for (const int iError : {7, -7}) {
        fake::platform().noStoredKey();
        fake::platform().fails("ss_store_rsa_key", iError);

        start();

        EXPECT_EQ(LoggedLines(), Joined({{Info("Verify the private key"), CannotProcess(2)},
                                         Reference(),
                                         {Info("Store key result " + std::to_string(iError)),
                                          Error("ss_store_rsa_key Error!")}}));
        EXPECT_THAT(keyCalls(),
                    ElementsAre("ss_init_credential", "ss_encrypt_by_key 7", "ss_store_rsa_key 7"));
    }
}

TEST_F(TheDeviceKey, IsRemovedAgainWhenItGotAnotherId)
{
    fake::platform().noStoredKey();
    fake::platform().idOfStoredKey(9);

    start();

    EXPECT_EQ(LoggedLines(),
              Joined({{Info("Verify the private key"), CannotProcess(2)},
                      Reference(),
                      {Info("Store key result 0"), Error("key is stored with the wrong id!")}}));
    EXPECT_THAT(keyCalls(), ElementsAre("ss_init_credential", "ss_encrypt_by_key 7",
                                        "ss_store_rsa_key 7", "ss_remove_key 9"));
    const Steps steps = Timeline();
    EXPECT_THAT(Steps(steps.end() - 4, steps.end()),
                ElementsAre(LoggedLines().back(), Asked("ss_remove_key 9"), Did("wipe 257 bytes"),
                            Did("wipe 257 bytes")));
    EXPECT_THAT(fake::platform().storedKeyIds(), IsEmpty());
}

class AnUnreachableStore : public TheDeviceKey, public ::testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(TheDeviceKey, AnUnreachableStore,
                         ::testing::Values(SS_ERROR_PARAMETER, SS_ERROR_ACCESS,
                                           SS_ERROR_UNAVAILABLE, SS_ERROR_BROKEN,
                                           SS_ERROR_NO_MEMORY, SS_ERROR_REFUSED, 77, -77));

TEST_P(AnUnreachableStore, IsLeftAlone)
{
    fake::platform().fails("ss_encrypt_by_key", GetParam());

    start();

    EXPECT_THAT(LoggedLines(),
                ElementsAre(Info("Verify the private key"), CannotProcess(GetParam())));
    EXPECT_THAT(keyCalls(), ElementsAre("ss_init_credential", "ss_encrypt_by_key 7"))
        << "neither stored nor removed";
}

TEST_F(TheDeviceKey, IsLeftAloneWithoutACertificateToHoldItAgainst)
{
    m_oFile.isMissing();
    start();
    const std::vector<Line> expected = {Info("Verify the private key"),
                                        Error("Internal error, OpenSSL objects are not created")};
    EXPECT_EQ(LoggedLines(), expected);

    m_oFile.holds("no certificate");
    start();
    EXPECT_EQ(LoggedLines(), expected);

    m_oFile.holds(test::pemOf(*test::selfSigned(test::newEcKeyPem(), "Curve").certificate));
    start();
    EXPECT_EQ(LoggedLines(), expected);

    for (const int iBits : {1024, 3072, 4096}) {
        m_oFile.holds(test::pemOf(*test::selfSigned(test::newRsaKeyPem(iBits), "Odd").certificate));
        start();
        EXPECT_EQ(LoggedLines(), expected) << iBits;
    }
    EXPECT_THAT(keyCalls(), ElementsAre("ss_init_credential", "ss_encrypt_by_key 7"));
}

// A certificate with an odd public exponent of that many bits. Its signature is not valid.
std::string WithExponent(int iBits)
{
    const test::Identity tIdentity = test::selfSigned(fake::Platform::deviceKeyPem(), "Long");
    const BillingOpenSslPtr<EVP_PKEY> pKey(X509_get_pubkey(tIdentity.certificate.get()));
    const BillingOpenSslPtr<RSA> pRsa(EVP_PKEY_get1_RSA(pKey.get()));
    BIGNUM* const pExponent = BN_new();
    EXPECT_EQ(BN_set_bit(pExponent, iBits - 1) + BN_set_bit(pExponent, 0), 2);
    EXPECT_EQ(RSA_set0_key(pRsa.get(), nullptr, pExponent, nullptr), 1);
    const BillingOpenSslPtr<EVP_PKEY> pLong(EVP_PKEY_new());
    EXPECT_EQ(EVP_PKEY_set1_RSA(pLong.get(), pRsa.get()), 1);
    EXPECT_EQ(X509_set_pubkey(tIdentity.certificate.get(), pLong.get()), 1);
    return test::pemOf(*tIdentity.certificate);
}

TEST_F(TheDeviceKey, IsHeldAgainstAnExponentOfAtMost256Bytes)
{
    m_oFile.holds(WithExponent(256 * 8));
    start();
    EXPECT_THAT(LoggedLines(), Contains(Debug("Set CC key pair")));

    m_oFile.holds(WithExponent(256 * 8 + 1));
    start();
    EXPECT_THAT(LoggedLines(),
                ElementsAre(Info("Verify the private key"),
                            Error("Internal error, OpenSSL objects are not created")));
}

TEST_F(TheDeviceKey, IsNotStoredWithoutACertificateThatItBelongsTo)
{
    m_oFile.isMissing();
    fake::platform().noStoredKey();

    start();

    EXPECT_EQ(LoggedLines().back(), Error("Internal error, OpenSSL objects are not created"));
    EXPECT_THAT(keyCalls(), Not(Contains("ss_store_rsa_key 7")));
}

TEST_F(TheDeviceKey, IsLeftAloneWithoutAContainer)
{
    for (const int iError : {3, -3}) {
        fake::platform().fails("create_CryptoCoreContainer", iError);

        start();

        EXPECT_THAT(LoggedLines(),
                    ElementsAre(Info("Verify the private key"),
                                Error("Internal error, OpenSSL objects are not created")));
        EXPECT_THAT(keyCalls(), ElementsAre("ss_init_credential", "ss_encrypt_by_key 7"));
    }
}

TEST_F(TheDeviceKey, IsLeftAloneWhenTheContainerRefusesTheCertificatesKey)
{
    for (const int iError : {3, -3}) {
        fake::platform().fails("set_public_key", iError);

        start();

        const std::string strError = std::to_string(iError);
        EXPECT_THAT(
            LoggedLines(),
            ElementsAre(Info("Verify the private key"), Debug("Set CC key pair"),
                        Debug("Set CC key pair result " + strError),
                        Error("the certificate's public key is refused (" + strError + ")")));
        EXPECT_THAT(keyCalls(), ElementsAre("ss_init_credential", "ss_encrypt_by_key 7"));
    }
}

TEST_F(TheDeviceKey, WithoutAKnownIdIsNeitherAskedForNorStored)
{
    fake::platform().keyId(std::nullopt);

    start();

    const auto records = fake::platform().log();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].strTag, "BILLING_PLATFORM") << "which says that the id is not set";
    EXPECT_EQ(records[1].strText, Info("Verify the private key").strText);
    EXPECT_EQ(records[2].strText, CannotProcess(2).strText);
    EXPECT_THAT(keyCalls(), ElementsAre("ss_init_credential"));
}

TEST_F(TheDeviceKey, IsAskedForWithZerosWhenTheServiceHasNoIdentity)
{
    fake::platform().credential(std::nullopt);

    start();

    EXPECT_THAT(callOf("ss_init_credential").credential.words, ElementsAre(0, 0, 0, 0, 0));
    EXPECT_EQ(callOf("ss_init_credential").credential.kind, 1u);
}

TEST_F(TheDeviceKey, IsUsedAgainOnceTheStoreComesBack)
{
    fake::platform().failsOnce("ss_encrypt_by_key", SS_ERROR_UNAVAILABLE);

    // The first call constructs the instance, which finds no token; the operation itself finds the token
    // again.
    unsigned char from[20] = {};
    unsigned char to[256] = {};
    EXPECT_EQ(CBillingSecureStorageUtil::rsa_private_encrypt(sizeof from, from, to, nullptr, 1),
              256);

    BillingDeleteInstance<CBillingSecureStorageUtil>();
}

}  // namespace
