// BillingSecureStorageUtil.h - the service's one gateway to secure storage and key store: named
// data, and the device's certificate with the private key that never leaves the store.
#pragma once

#include "BillingOpenSsl.h"

#include <platform/crypto_container.h>
#include <platform/secure_storage.h>

#include <cstdint>
#include <memory>
#include <string>

/// Held by CBillingSingleton<CBillingSecureStorageUtil>. Thread: named data any; the certificate and
/// the key one, the worker; rsa_private_encrypt any.
class CBillingSecureStorageUtil {
public:
    /// Makes the credential and sees to the device's key in the key store; may take seconds on a
    /// slow token. What is missing is logged, and shows as a failed handshake.
    CBillingSecureStorageUtil();
    /// Releases the cached certificate and key.
    ~CBillingSecureStorageUtil() = default;
    CBillingSecureStorageUtil(const CBillingSecureStorageUtil&) = delete;
    CBillingSecureStorageUtil& operator=(const CBillingSecureStorageUtil&) = delete;

    /// Reads named data. A name that holds a NUL is refused, here and below.
    /// @param[out] strData as it was when there is none @return false when the
    /// store refused
    bool SecureRead(const std::string& strName, std::string& strData);
    /// Replaces named data. @return false when the store refused; the name is then deleted
    bool SecureWrite(const std::string& strName, const std::string& strData);
    /// Deletes named data. @return false when the store refused
    bool SecureClear(const std::string& strName);

    /// The device's certificate, and a key that has its public part and signs in the key store.
    /// Each is empty when there is none; both are shared with the cache, and made again as long as
    /// one is missing.
    void getDevCertAndPKey(std::shared_ptr<X509>& cert, std::shared_ptr<RSA>& key);

    /// The private operation of that key, for OpenSSL: pads flen bytes (PKCS#1 type 1, whatever the
    /// padding code) and has the key store work on the block. @param to takes RSA_size(rsa) bytes
    /// @return the bytes written, -1 when the key store did not do it, 0 without an instance
    static int rsa_private_encrypt(int flen, const unsigned char* from, unsigned char* to, RSA* rsa,
                                   int padding);

    /// The key is seen to by the constructor. @return true
    bool SecureStore_rsa_key();

private:
    enum class KeyState { Valid, Absent, Invalid, Unknown };

    void m_getDevCertAndPKey(std::shared_ptr<X509>& cert, std::shared_ptr<RSA>& key);
    void m_PrepareDevKey();
    KeyState m_VerifyKey() const;
    bool m_StoreKey();

    ss_credential_s m_tCredential;
    std::int32_t m_iStorageFlags;
    std::int32_t m_iKeyId;  // 0: none
    std::shared_ptr<X509> m_pDevCert;
    std::shared_ptr<RSA> m_pDevKey;
};

/// The device's certificate file.
inline constexpr char BILLING_DEVICE_CERTIFICATE[] =
    "/usr/apps/org.plevo.billing-api/res/certificate/bgclient.crt";
/// Opens it. @return null when it cannot be opened, or might have no end, as a pipe: the thread of all
/// transfers would wait for that
BillingOpenSslPtr<BIO> OpenDeviceCertificate();
/// Bytes of the device's key, and of a block that it works on.
inline constexpr int BILLING_KEY_BYTES = 256;

struct BillingStoreFree {
    void operator()(unsigned char* pBuffer) const { ss_free_buffer(pBuffer); }
};
/// Owns a buffer of the store's.
using BillingStoreBuffer = std::unique_ptr<unsigned char, BillingStoreFree>;
