// BillingHttpConnectorTls.cpp - installs the device's certificate and key, from memory, into the TLS
// context of each new connection.
#include "BillingHttpConnector.h"
#include "BillingLog.h"
#include "BillingSecureStorageUtil.h"

void CHttpConnector::sslctxfun(void* sslctx, void* aux)
{
    BILLING_DEBUG("[START] ");
    BILLING_DEBUG("CHttpConnector::sslctxfun");
    if (sslctx == nullptr || aux == nullptr) {
        BILLING_ERROR("sslctxfun , sslctx == NULL || aux ==  NULL");
        return;
    }
    auto* poSS = BillingInstance<CBillingSecureStorageUtil>();
    if (poSS == nullptr) {
        BILLING_ERROR("No SecureStorage access");
        return;
    }
    std::shared_ptr<X509> cert(nullptr, X509_free);
    std::shared_ptr<RSA> key(nullptr, RSA_free);
    poSS->getDevCertAndPKey(cert, key);
    const auto* poConnector = BillingInstance<CHttpConnector>();
    BILLING_RETURN_IF(NULL == poConnector);

    BILLING_DEBUG("set in-memory pkey & dev cert ");
    auto* pContext = static_cast<SSL_CTX*>(sslctx);
    if (!use_clientcert(pContext, cert)) {
        BILLING_ERROR("use_clientcert  Error!");
        return;
    }
    if (!use_pkey(pContext, key)) {
        BILLING_ERROR("use_pkey  Error!");
        return;
    }
    BILLING_DEBUG("both pkey & dev cert set");
}

bool CHttpConnector::use_clientcert(SSL_CTX* ctx, std::shared_ptr<X509> cert)
{
    BILLING_INFO("use_clientcert ()  use DEVCERT");
    if (cert == nullptr) {
        return false;
    }
    if (SSL_CTX_use_certificate(ctx, cert.get()) != 1) {
        BILLING_ERROR("Error accepting Certificate");
        return false;
    }
    BILLING_INFO("Certificate updated");
    return true;
}

bool CHttpConnector::use_pkey(SSL_CTX* ctx, std::shared_ptr<RSA> key)
{
    BILLING_INFO("use_pkey () use RSA-PKEY");
    if (key == nullptr) {
        return false;
    }
    if (SSL_CTX_use_RSAPrivateKey(ctx, key.get()) != 1) {
        BILLING_ERROR("Error accepting PrivateKey");
        return false;
    }
    BILLING_INFO("PrivateKey updated");
    return true;
}
