// http_connector_tls_test.cpp - the device's credentials in a TLS context, and their preparation by
// CHttpConnector::Create.
#include "BillingHttpConnector.h"
#include "BillingSecureStorageUtil.h"
#include "allocation_switch.h"
#include "device_certificate_file.h"
#include "log_matchers.h"
#include "mzcurl_double.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

const std::string TLS_SOURCE = "BillingHttpConnectorTls.cpp";
const LinesOf TLS{TLS_SOURCE};
const LinesOf CONNECTOR{"BillingHttpConnector.cpp"};
const std::string CALLBACK = "sslctxfun";

struct ContextFree {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};

class ATlsContext : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::platform().reset();
        Curl() = CurlDouble();
        m_oFile.holdsTheDevices();
        m_context.reset(SSL_CTX_new(TLS_client_method()));
        fake::platform().clearLog();
    }

    void TearDown() override
    {
        BillingDeleteInstance<CBillingSecureStorageUtil>();
        BillingDeleteInstance<CHttpConnector>();
        ERR_clear_error();
    }

    // Calls the callback as the wrapper does for a new context.
    void prepare() { CHttpConnector::sslctxfun(m_context.get(), this); }

    bool hasCertificate() const { return SSL_CTX_get0_certificate(m_context.get()) != nullptr; }
    bool hasKey() const { return SSL_CTX_get0_privatekey(m_context.get()) != nullptr; }

    static std::shared_ptr<X509> certificate(const std::string& keyPem)
    {
        return std::shared_ptr<X509>(test::selfSigned(keyPem, "Other").certificate.release(),
                                     X509_free);
    }

    static std::shared_ptr<RSA> key(const std::string& keyPem)
    {
        const test::Identity identity = test::selfSigned(keyPem, "Other");
        return std::shared_ptr<RSA>(EVP_PKEY_get1_RSA(identity.key.get()), RSA_free);
    }

    static std::vector<Line> opening()
    {
        return {TLS.debug(CALLBACK, "[START] "), TLS.debug(CALLBACK, "CHttpConnector::sslctxfun")};
    }

    DeviceCertificateFile m_oFile;
    std::unique_ptr<SSL_CTX, ContextFree> m_context;
};

TEST_F(ATlsContext, GetsTheCertificateAndTheKey)
{
    prepare();

    EXPECT_TRUE(hasCertificate());
    EXPECT_TRUE(hasKey());
    EXPECT_THAT(LoggedLines(TLS_SOURCE),
                ElementsAre(opening()[0], opening()[1],
                            TLS.debug(CALLBACK, "set in-memory pkey & dev cert "),
                            TLS.info("use_clientcert", "use_clientcert ()  use DEVCERT"),
                            TLS.info("use_clientcert", "Certificate updated"),
                            TLS.info("use_pkey", "use_pkey () use RSA-PKEY"),
                            TLS.info("use_pkey", "PrivateKey updated"),
                            TLS.debug(CALLBACK, "both pkey & dev cert set")));
}

TEST_F(ATlsContext, SharesOneCertificateWithTheNext)
{
    prepare();
    const X509* pFirst = SSL_CTX_get0_certificate(m_context.get());
    m_context.reset(SSL_CTX_new(TLS_client_method()));

    prepare();

    EXPECT_EQ(SSL_CTX_get0_certificate(m_context.get()), pFirst);
}

TEST_F(ATlsContext, IsRefusedWithoutAContextOrAConnector)
{
    CHttpConnector::sslctxfun(nullptr, this);
    CHttpConnector::sslctxfun(m_context.get(), nullptr);

    const Line tRefusal = TLS.error(CALLBACK, "sslctxfun , sslctx == NULL || aux ==  NULL");
    EXPECT_THAT(LoggedLines(), ElementsAre(opening()[0], opening()[1], tRefusal, opening()[0],
                                           opening()[1], tRefusal));
    EXPECT_FALSE(hasCertificate());
}

TEST_F(ATlsContext, GetsNothingWithoutSecureStorage)
{
    FailNothrowAllocation(1);

    prepare();

    EXPECT_THAT(LoggedLines(), ElementsAre(opening()[0], opening()[1],
                                           TLS.error(CALLBACK, "No SecureStorage access")));
    EXPECT_FALSE(hasCertificate());
}

TEST_F(ATlsContext, GetsNothingWithoutTheConnector)
{
    BillingInstance<CBillingSecureStorageUtil>();
    FailNothrowAllocation(1);

    prepare();

    EXPECT_EQ(LoggedLines().back(), TLS.refused(CALLBACK, "NULL == poConnector"));
    EXPECT_FALSE(hasCertificate());
}

TEST_F(ATlsContext, StaysAsItIsWhenTheCertificateFileIsMissing)
{
    m_oFile.isMissing();

    prepare();

    EXPECT_FALSE(hasCertificate());
    EXPECT_FALSE(hasKey());
    EXPECT_THAT(LoggedLines(), Contains(LinesOf{"BillingSecureStorageUtil.cpp"}.error(
                                   "m_getDevCertAndPKey", "!bioClient")));
    EXPECT_THAT(LoggedLines(TLS_SOURCE),
                ElementsAre(opening()[0], opening()[1],
                            TLS.debug(CALLBACK, "set in-memory pkey & dev cert "),
                            TLS.info("use_clientcert", "use_clientcert ()  use DEVCERT"),
                            TLS.error(CALLBACK, "use_clientcert  Error!")));
}

TEST_F(ATlsContext, GetsTheCertificateAloneWhenThereIsNoKey)
{
    m_oFile.holds(test::pemOf(*test::selfSigned(test::newEcKeyPem(), "Curve").certificate));

    prepare();

    EXPECT_TRUE(hasCertificate());
    EXPECT_FALSE(hasKey());
    const auto lines = LoggedLines(TLS_SOURCE);
    EXPECT_EQ(lines[lines.size() - 2], TLS.info("use_pkey", "use_pkey () use RSA-PKEY"));
    EXPECT_EQ(lines.back(), TLS.error(CALLBACK, "use_pkey  Error!"));
}

TEST_F(ATlsContext, SaysThatItDoesNotAcceptACertificate)
{
    SSL_CTX_set_security_level(m_context.get(), 2);

    EXPECT_FALSE(
        CHttpConnector::use_clientcert(m_context.get(), certificate(test::newRsaKeyPem(1024))));

    EXPECT_THAT(LoggedLines(),
                ElementsAre(TLS.info("use_clientcert", "use_clientcert ()  use DEVCERT"),
                            TLS.error("use_clientcert", "Error accepting Certificate")));
}

TEST_F(ATlsContext, SaysThatItDoesNotAcceptAKey)
{
    ASSERT_TRUE(CHttpConnector::use_clientcert(m_context.get(), certificate(test::newRsaKeyPem())));
    fake::platform().clearLog();

    EXPECT_FALSE(CHttpConnector::use_pkey(m_context.get(), key(test::newRsaKeyPem())))
        << "the key of another certificate";

    EXPECT_THAT(LoggedLines(), ElementsAre(TLS.info("use_pkey", "use_pkey () use RSA-PKEY"),
                                           TLS.error("use_pkey", "Error accepting PrivateKey")));
}

// --- preparation ---

class AConnectorWithCredentials : public ATlsContext {
protected:
    void TearDown() override
    {
        m_oConnector.Destroy();
        ATlsContext::TearDown();
    }

    CHttpConnector& m_oConnector = *BillingInstance<CHttpConnector>();
};

TEST_F(AConnectorWithCredentials, HasTheKeyVerifiedWhenItIsCreated)
{
    EXPECT_TRUE(m_oConnector.Create());

    EXPECT_NE(CBillingSingleton<CBillingSecureStorageUtil>::m_pObj, nullptr);
    EXPECT_EQ(LoggedLines().back(), LinesOf{"BillingSecureStorageUtilKey.cpp"}.info(
                                        "CBillingSecureStorageUtil", "Private key is valid"));
}

TEST_F(AConnectorWithCredentials, IsCreatedThoughTheKeyStoreCannotBeReached)
{
    fake::platform().fails("ss_encrypt_by_key", SS_ERROR_UNAVAILABLE);

    EXPECT_TRUE(m_oConnector.Create()) << "a token that comes back works at once";
}

TEST_F(AConnectorWithCredentials, IsNotCreatedWithoutMemoryForThem)
{
    FailNothrowAllocation(1);

    EXPECT_FALSE(m_oConnector.Create());

    EXPECT_EQ(LoggedLines().back(), CONNECTOR.refused("Create", "NULL == poSS"));
}

}  // namespace
