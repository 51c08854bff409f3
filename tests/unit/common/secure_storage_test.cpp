// secure_storage_test.cpp - CBillingSecureStorageUtil: the device's certificate, and the key object that
// signs in the key store.
#include "allocation_switch.h"
#include "secure_storage_fixture.h"

#include <array>
#include <cstdio>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

const std::string GET = "getDevCertAndPKey";
const std::string MAKE = "m_getDevCertAndPKey";
const std::string ENCRYPT = "rsa_private_encrypt";

using Block = std::array<unsigned char, 256>;

class DeviceCertificate : public SecureStorage {
protected:
    void get()
    {
        m_poUtil->getDevCertAndPKey(m_cert, m_key);
        s_bMade = s_bMade || m_key != nullptr;
    }

    inline static bool s_bMade = false;  // true once this process has made a key
    std::shared_ptr<X509> m_cert;
    std::shared_ptr<RSA> m_key;
};

std::string Address(const void* p)
{
    char szText[32];
    std::snprintf(szText, sizeof szText, "%p", p);
    return szText;
}

const void* Routine()
{
    return reinterpret_cast<const void*>(&CBillingSecureStorageUtil::rsa_private_encrypt);
}

TEST_F(DeviceCertificate, IsMadeWithAKeyWhosePrivateOperationIsTheKeyStores)
{
    const void* pDefault =
        reinterpret_cast<const void*>(RSA_meth_get_priv_enc(RSA_get_default_method()));
    const std::string strName = RSA_meth_get0_name(RSA_get_default_method());
    // The previous operation in the log record: the library's for the first key of the process, the service's
    // for later keys.
    const void* pOld = s_bMade ? Routine() : pDefault;

    get();

    ASSERT_NE(m_cert, nullptr);
    ASSERT_NE(m_key, nullptr);
    const BIGNUM* pPrivate = nullptr;
    RSA_get0_key(m_key.get(), nullptr, nullptr, &pPrivate);
    EXPECT_EQ(pPrivate, nullptr);
    char szSubject[64] = {};
    X509_NAME_get_text_by_NID(X509_get_subject_name(m_cert.get()), NID_commonName, szSubject,
                              sizeof szSubject);
    EXPECT_STREQ(szSubject, "Device");
    EXPECT_THAT(
        LoggedLines(),
        ElementsAre(UTIL.debug(GET, "[START] "), UTIL.debug(MAKE, "[START] "),
                    UTIL.debug(MAKE, "CBillingSecureStorageUtil::getDeviceCertificate()"),
                    UTIL.debug(MAKE, "CBillingSecureStorageUtil::getPrivateKey()"),
                    UTIL.debug(MAKE, "Get Public Key from DevCert"), UTIL.info(MAKE, "Public RSA"),
                    UTIL.info(MAKE, "Update default RSA methods {" + strName +
                                        "}, old=" + Address(pOld) + ", new=" + Address(Routine())),
                    UTIL.info(MAKE, "Update result (1), set RSA method " + Address(Routine())),
                    UTIL.debug(GET, "Use recreated")));
}

TEST_F(DeviceCertificate, IsHandedOutFromTheCacheTheSecondTime)
{
    get();
    const auto first = std::make_pair(m_cert, m_key);
    forget();

    get();

    EXPECT_EQ(std::make_pair(m_cert, m_key), first);
    EXPECT_THAT(LoggedLines(),
                ElementsAre(UTIL.debug(GET, "[START] "), UTIL.debug(GET, "Use cached")));
}

TEST_F(DeviceCertificate, UsesOneMethodRecordForTheProcess)
{
    get();
    const RSA_METHOD* pFirst = RSA_get_method(m_key.get());
    restart();

    get();

    EXPECT_EQ(RSA_get_method(m_key.get()), pFirst);
    EXPECT_NE(pFirst, RSA_get_default_method());
    EXPECT_THAT(LoggedLines()[6].strText,
                HasSubstr("old=" + Address(Routine()) + ", new=" + Address(Routine())));
}

TEST_F(DeviceCertificate, OutlivesTheInstanceThatHandedItOut)
{
    get();

    BillingDeleteInstance<CBillingSecureStorageUtil>();

    EXPECT_EQ(m_cert.use_count(), 1);
    EXPECT_EQ(m_key.use_count(), 1);
    EXPECT_EQ(RSA_size(m_key.get()), 256);
}

TEST_F(DeviceCertificate, IsEmptyWithoutAFileAndSoIsTheKey)
{
    m_oFile.isMissing();

    get();

    EXPECT_EQ(m_cert, nullptr);
    EXPECT_EQ(m_key, nullptr);
    EXPECT_THAT(LoggedLines(),
                ElementsAre(UTIL.debug(GET, "[START] "), UTIL.debug(MAKE, "[START] "),
                            UTIL.debug(MAKE, "CBillingSecureStorageUtil::getDeviceCertificate()"),
                            UTIL.error(MAKE, "!bioClient"),
                            UTIL.debug(MAKE, "CBillingSecureStorageUtil::getPrivateKey()"),
                            UTIL.debug(MAKE, "Get Public Key from DevCert"),
                            UTIL.debug(GET, "Use recreated")));
}

TEST_F(DeviceCertificate, IsEmptyWhereTheFileIsAPipe)
{
    m_oFile.isAPipe();

    get();

    EXPECT_EQ(m_cert, nullptr);
    EXPECT_EQ(LoggedLines()[3], UTIL.error(MAKE, "!bioClient"))
        << "the open would wait for a writer";
}

TEST_F(DeviceCertificate, IsEmptyWhenTheFileHoldsNone)
{
    m_oFile.holds("no certificate");

    get();

    EXPECT_EQ(m_cert, nullptr);
    EXPECT_EQ(m_key, nullptr);
    EXPECT_THAT(LoggedLines(),
                ElementsAre(UTIL.debug(GET, "[START] "), UTIL.debug(MAKE, "[START] "),
                            UTIL.debug(MAKE, "CBillingSecureStorageUtil::getDeviceCertificate()"),
                            UTIL.error(MAKE, "PEM_read_bio_X509 failed..."),
                            UTIL.debug(MAKE, "CBillingSecureStorageUtil::getPrivateKey()"),
                            UTIL.debug(MAKE, "Get Public Key from DevCert"),
                            UTIL.debug(GET, "Use recreated")));
}

TEST_F(DeviceCertificate, IsReadAgainUntilThereIsOne)
{
    m_oFile.isMissing();
    get();
    m_oFile.holdsTheDevices();

    get();

    EXPECT_NE(m_cert, nullptr);
    EXPECT_NE(m_key, nullptr);
}

TEST_F(DeviceCertificate, OfAnotherKindOfKeyGivesNoKey)
{
    m_oFile.holds(test::pemOf(*test::selfSigned(test::newEcKeyPem(), "Curve").certificate));

    get();

    EXPECT_NE(m_cert, nullptr);
    EXPECT_EQ(m_key, nullptr);
    EXPECT_EQ(LoggedLines()[LoggedLines().size() - 2],
              UTIL.debug(MAKE, "Get Public Key from DevCert"));
    get();
    EXPECT_EQ(LoggedLines().back(), UTIL.debug(GET, "Use recreated")) << "half is not cached";
}

// --- the private operation ---

class PrivateOperation : public DeviceCertificate {
protected:
    void SetUp() override
    {
        SecureStorage::SetUp();
        get();
        forget();
    }

    int encrypt(int flen, int padding = RSA_PKCS1_PADDING)
    {
        m_to.fill(0xee);
        return CBillingSecureStorageUtil::rsa_private_encrypt(flen, m_from.data(), m_to.data(),
                                                              m_key.get(), padding);
    }

    // Decrypts the result with the certificate's public key.
    Block undone()
    {
        Block out{};
        EXPECT_EQ(RSA_public_decrypt(256, m_to.data(), out.data(), m_key.get(), RSA_NO_PADDING),
                  256);
        return out;
    }

    std::vector<unsigned char> m_from = std::vector<unsigned char>(300, 0x5a);
    std::array<unsigned char, 512> m_to{};
};

TEST_F(PrivateOperation, IsDoneByTheKeyStoreOnAPaddedBlock)
{
    EXPECT_EQ(encrypt(51), 256);

    const Block block = undone();
    EXPECT_EQ(block[0], 0);
    EXPECT_EQ(block[1], 1);
    EXPECT_TRUE(std::all_of(&block[2], &block[204], [](int b) { return b == 0xff; }));
    EXPECT_EQ(block[204], 0);
    EXPECT_TRUE(std::all_of(block.begin() + 205, block.end(), [](int b) { return b == 0x5a; }));
    EXPECT_EQ(m_to[256], 0xee) << "no byte more";
    EXPECT_THAT(LoggedLines(),
                ElementsAre(UTIL.info(ENCRYPT, "rsa_private_encrypt, padding code 1 , flen 51"),
                            UTIL.info(ENCRYPT, "Encrypt by KeyStore"),
                            UTIL.info(ENCRYPT, "Return KeyStore result 256")));
}

TEST_F(PrivateOperation, AsksTheKeyStoreForTheDevicesKey)
{
    encrypt(51);

    const auto calls = fake::platform().secureCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].function, "ss_encrypt_by_key");
    EXPECT_THAT(calls[0].credential.words, ElementsAre(1, 2, 3, 4, 5));
    EXPECT_EQ(calls[0].keyId, 7);
    EXPECT_EQ(calls[0].size, 256u);
    EXPECT_TRUE(calls[0].restIsZero);
}

TEST_F(PrivateOperation, PadsTheSameWhateverThePaddingCode)
{
    encrypt(51, RSA_PKCS1_PADDING);
    const auto expected = m_to;

    EXPECT_EQ(encrypt(51, RSA_NO_PADDING), 256);
    EXPECT_EQ(m_to, expected);
    EXPECT_EQ(encrypt(51, RSA_PKCS1_OAEP_PADDING), 256);
    EXPECT_EQ(m_to, expected);
    EXPECT_EQ(LoggedLines()[3],
              UTIL.info(ENCRYPT, "rsa_private_encrypt, padding code 3 , flen 51"));
}

TEST_F(PrivateOperation, FailsWithoutAKeyIdAndDoesNotCallTheKeyStore)
{
    fake::platform().keyId(std::nullopt);
    restart();

    EXPECT_EQ(encrypt(51), -1);

    EXPECT_THAT(fake::platform().calls(), IsEmpty());
    EXPECT_THAT(LoggedLines(),
                ElementsAre(UTIL.info(ENCRYPT, "rsa_private_encrypt, padding code 1 , flen 51")));
}

TEST_F(PrivateOperation, FailsWithoutAKeyIdAfterTheKeyGotAnother)
{
    fake::platform().noStoredKey();
    fake::platform().idOfStoredKey(9);
    restart();
    forget();

    EXPECT_EQ(encrypt(51), -1);

    EXPECT_THAT(fake::platform().calls(), IsEmpty());
}

TEST_F(PrivateOperation, FailsWhenTheKeyStoreDoes)
{
    for (const int iError : {4, -4}) {
        fake::platform().fails("ss_encrypt_by_key", iError);

        EXPECT_EQ(encrypt(51), -1);

        EXPECT_EQ(m_to[0], 0xee);
        EXPECT_EQ(LoggedLines().back(), UTIL.info(ENCRYPT, "Encrypt by KeyStore"));
    }
}

TEST_F(PrivateOperation, TakesTheLongestTextThatThePaddingHasRoomFor)
{
    EXPECT_EQ(encrypt(245), 256);
    EXPECT_EQ(undone()[11], 0x5a);
}

TEST_F(PrivateOperation, FailsOnATextTooLongToPad)
{
    EXPECT_EQ(encrypt(246), -1);
    EXPECT_EQ(encrypt(256, RSA_NO_PADDING), -1) << "padded by somebody else";

    EXPECT_THAT(fake::platform().calls(), IsEmpty());
    EXPECT_THAT(LoggedLines(),
                ElementsAre(UTIL.info(ENCRYPT, "rsa_private_encrypt, padding code 1 , flen 246"),
                            UTIL.info(ENCRYPT, "Encrypt by KeyStore"),
                            UTIL.error(ENCRYPT, "246 bytes cannot be padded for a signature"),
                            UTIL.info(ENCRYPT, "rsa_private_encrypt, padding code 3 , flen 256"),
                            UTIL.info(ENCRYPT, "Encrypt by KeyStore"),
                            UTIL.error(ENCRYPT, "256 bytes cannot be padded for a signature")));
    ERR_clear_error();  // the caller of such an operation expects the reason in the queue
}

TEST_F(PrivateOperation, ReturnsTheLengthThatTheStoreGave)
{
    fake::platform().blockSize(100);

    EXPECT_EQ(encrypt(51), 100);

    EXPECT_EQ(m_to[100], 0xee);
    EXPECT_EQ(LoggedLines().back(), UTIL.info(ENCRYPT, "Return KeyStore result 100"));
}

TEST_F(PrivateOperation, NeverWritesPastTheEndOfAShorterKey)
{
    m_oFile.holds(test::pemOf(*test::selfSigned(test::newRsaKeyPem(1024), "Short").certificate));
    restart();
    get();
    forget();

    EXPECT_EQ(encrypt(51), -1);

    EXPECT_EQ(m_to[0], 0xee);
}

TEST_F(PrivateOperation, WritesNoMoreThanTheStoresBlockForALongerKey)
{
    for (const int iBits : {3072, 4096}) {
        m_oFile.holds(
            test::pemOf(*test::selfSigned(test::newRsaKeyPem(iBits), "Long").certificate));
        restart();
        get();
        forget();

        EXPECT_EQ(encrypt(51), 256) << iBits;

        EXPECT_NE(m_to[255], 0xee);
        EXPECT_EQ(m_to[256], 0xee);
    }
}

TEST_F(PrivateOperation, AnswersZeroWhenNoInstanceCanBeHad)
{
    BillingDeleteInstance<CBillingSecureStorageUtil>();
    forget();
    FailNothrowAllocation(1);

    EXPECT_EQ(encrypt(51), 0);

    EXPECT_THAT(LoggedLines(),
                ElementsAre(UTIL.info(ENCRYPT, "rsa_private_encrypt, padding code 1 , flen 51"),
                            UTIL.refused(ENCRYPT, "NULL == poSS")));
}

TEST_F(PrivateOperation, MakesTheInstanceWhenItComesFirst)
{
    BillingDeleteInstance<CBillingSecureStorageUtil>();

    EXPECT_EQ(encrypt(51), 256);

    EXPECT_NE(CBillingSingleton<CBillingSecureStorageUtil>::m_pObj, nullptr);
}

TEST_F(PrivateOperation, SignsWhatTheCertificateVerifies)
{
    const std::array<unsigned char, 32> digest{1, 2, 3};
    std::array<unsigned char, 256> signature{};
    unsigned int uLength = 0;

    ASSERT_EQ(
        RSA_sign(NID_sha256, digest.data(), digest.size(), signature.data(), &uLength, m_key.get()),
        1);

    EXPECT_EQ(uLength, 256u);
    EXPECT_EQ(RSA_verify(NID_sha256, digest.data(), digest.size(), signature.data(), uLength,
                         m_key.get()),
              1);
}

TEST_F(SecureStorage, HasNothingLeftToStoreWhenTheConnectorAsks)
{
    EXPECT_TRUE(m_poUtil->SecureStore_rsa_key());
    EXPECT_THAT(fake::platform().calls(), IsEmpty());
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

}  // namespace
