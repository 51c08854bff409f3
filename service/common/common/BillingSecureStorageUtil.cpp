// BillingSecureStorageUtil.cpp - named data, the device's certificate, and the key object that signs
// in the key store. BillingSecureStorageUtilKey.cpp puts the key into the key store.
#include "BillingSecureStorageUtil.h"

#include "BillingLog.h"
#include "BillingTaskBase.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>

namespace {

using RsaPrivateOperation = int (*)(int, const unsigned char*, unsigned char*, RSA*, int);

const void* Address(RsaPrivateOperation pfnOperation)
{
    return reinterpret_cast<const void*>(pfnOperation);
}

// The process's only method record; never freed, since a key may still be in use when main ends.
RSA_METHOD* MethodRecord(const RSA* pRsa)
{
    static RSA_METHOD* const s_pRecord = RSA_meth_dup(RSA_get_method(pRsa));
    return s_pRecord;
}

// The secure storage would take the part before the NUL for the name.
bool HoldsNul(const std::string& strName)
{
    return strName.find('\0') != std::string::npos;
}

}  // namespace

BillingOpenSslPtr<BIO> OpenDeviceCertificate()
{
    struct stat tStatus {};
    const bool bEnds = stat(BILLING_DEVICE_CERTIFICATE, &tStatus) != 0 ||
                       S_ISREG(tStatus.st_mode) || S_ISDIR(tStatus.st_mode);
    return BillingOpenSslPtr<BIO>(bEnds ? BIO_new_file(BILLING_DEVICE_CERTIFICATE, "rt") : nullptr);
}

bool CBillingSecureStorageUtil::SecureRead(const std::string& strName, std::string& strData)
{
    BILLING_RETURN_IF(HoldsNul(strName), false);
    unsigned char* pBuffer = nullptr;
    size_t uDataSize = 0;
    const int iResult =
        ss_read(&pBuffer, &uDataSize, 0, 0, strName.c_str(), &m_tCredential, m_iStorageFlags);
    if (iResult != 0) {
        BILLING_ERROR("ss_read error,data name[%s] error num[%d]!", strName.c_str(), iResult);
        return false;
    }
    const BillingStoreBuffer pOwner(pBuffer);
    if (pBuffer != nullptr) {
        strData.assign(reinterpret_cast<const char*>(pBuffer), uDataSize);
        BILLING_INFO("strData[%s] strData size[%d] uiDataSize[%d]!", strData.c_str(),
                     static_cast<int>(strData.size()), static_cast<int>(uDataSize));
    }
    return true;
}

bool CBillingSecureStorageUtil::SecureWrite(const std::string& strName, const std::string& strData)
{
    BILLING_RETURN_IF(HoldsNul(strName), false);
    SecureClear(strName);
    const int iResult =
        ss_write(reinterpret_cast<const unsigned char*>(strData.data()), strData.size(), nullptr, 0,
                 strName.c_str(), &m_tCredential, m_iStorageFlags);
    if (iResult != 0) {
        BILLING_ERROR("ss_write data name[%s] error num[%d]!", strName.c_str(), iResult);
        return false;
    }
    return true;
}

bool CBillingSecureStorageUtil::SecureClear(const std::string& strName)
{
    BILLING_RETURN_IF(HoldsNul(strName), false);
    const int iResult = ss_delete(0, strName.c_str(), &m_tCredential, m_iStorageFlags);
    if (iResult != 0) {
        BILLING_ERROR("ss_delete data name[%s] error num[%d]!", strName.c_str(), iResult);
        return false;
    }
    return true;
}

void CBillingSecureStorageUtil::getDevCertAndPKey(std::shared_ptr<X509>& cert,
                                                  std::shared_ptr<RSA>& key)
{
    BILLING_DEBUG("[START] ");
    const bool bCached = m_pDevCert != nullptr && m_pDevKey != nullptr;
    if (!bCached) {
        m_getDevCertAndPKey(m_pDevCert, m_pDevKey);
    }
    cert = m_pDevCert;
    key = m_pDevKey;
    if (bCached) {
        BILLING_DEBUG("Use cached");
    } else {
        BILLING_DEBUG("Use recreated");
    }
}

void CBillingSecureStorageUtil::m_getDevCertAndPKey(std::shared_ptr<X509>& cert,
                                                    std::shared_ptr<RSA>& key)
{
    const CBillingOpenSslErrors oErrors;
    BILLING_DEBUG("[START] ");
    BILLING_DEBUG("CBillingSecureStorageUtil::getDeviceCertificate()");
    BillingOpenSslPtr<BIO> bioClient = OpenDeviceCertificate();
    if (!bioClient) {
        BILLING_ERROR("!bioClient");
    } else {
        X509* pCert = PEM_read_bio_X509(bioClient.get(), nullptr, nullptr, nullptr);
        bioClient.reset();
        if (pCert != nullptr) {
            cert.reset(pCert, X509_free);
        } else {
            BILLING_ERROR("PEM_read_bio_X509 failed...");
        }
    }

    BILLING_DEBUG("CBillingSecureStorageUtil::getPrivateKey()");
    BILLING_DEBUG("Get Public Key from DevCert");
    const BillingOpenSslPtr<EVP_PKEY> pPublicKey(X509_get_pubkey(cert.get()));
    if (pPublicKey == nullptr) {
        return;  // without a certificate there is no public key
    }
    BillingOpenSslPtr<RSA> pRsa(EVP_PKEY_get1_RSA(pPublicKey.get()));
    if (pRsa == nullptr) {
        return;
    }
    BILLING_INFO("Public RSA");
    RSA_METHOD* pRecord = MethodRecord(pRsa.get());
    if (pRecord == nullptr) {
        return;  // without our method OpenSSL would sign with a private part that is not there
    }
    BILLING_INFO("Update default RSA methods {%s}, old=%p, new=%p", RSA_meth_get0_name(pRecord),
                 Address(RSA_meth_get_priv_enc(pRecord)), Address(rsa_private_encrypt));
    RSA_meth_set_priv_enc(pRecord, rsa_private_encrypt);
    const int iResult = RSA_set_method(pRsa.get(), pRecord);
    BILLING_INFO("Update result (%d), set RSA method %p", iResult,
                 Address(RSA_meth_get_priv_enc(RSA_get_method(pRsa.get()))));
    key.reset(pRsa.release(), RSA_free);
}

int CBillingSecureStorageUtil::rsa_private_encrypt(int flen, const unsigned char* from,
                                                   unsigned char* to, RSA* rsa, int padding)
{
    BILLING_INFO("rsa_private_encrypt, padding code %d , flen %d", padding, flen);
    const auto* poSS = BillingInstance<CBillingSecureStorageUtil>();
    BILLING_RETURN_IF(NULL == poSS, 0);
    const ss_credential_s tCredential = poSS->m_tCredential;
    const std::int32_t iKeyId = poSS->m_iKeyId;
    if (iKeyId == 0) {
        return -1;
    }
    BILLING_INFO("Encrypt by KeyStore");
    // The key store does the raw RSA operation only: the padding is added here, always PKCS#1 type 1.
    std::array<unsigned char, BILLING_KEY_BYTES> aPadded;
    if (RSA_padding_add_PKCS1_type_1(aPadded.data(), BILLING_KEY_BYTES, from, flen) != 1) {
        BILLING_ERROR("%d bytes cannot be padded for a signature", flen);
        return -1;
    }
    unsigned char* pBlock = aPadded.data();
    size_t uBlockSize = aPadded.size();
    if (ss_encrypt_by_key(&tCredential, iKeyId, &pBlock, &uBlockSize, 0, 0) != 0) {
        return -1;
    }
    const BillingStoreBuffer pOwner(pBlock);
    // The certificate's key may be shorter than the key in the store: the caller's buffer is then smaller.
    const int iRoom =
        rsa != nullptr ? std::min(RSA_size(rsa), BILLING_KEY_BYTES) : BILLING_KEY_BYTES;
    if (uBlockSize > static_cast<size_t>(iRoom)) {
        return -1;
    }
    std::copy_n(pBlock, uBlockSize, to);
    const int iLength = static_cast<int>(uBlockSize);
    BILLING_INFO("Return KeyStore result %d", iLength);
    return iLength;
}

bool CBillingSecureStorageUtil::SecureStore_rsa_key()
{
    return true;
}
