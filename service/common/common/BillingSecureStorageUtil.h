// BillingSecureStorageUtil.h - the service's access to secure storage and key store: named data, and the
// device's certificate with the private key that never leaves the key store.
#pragma once

#include "BillingOpenSsl.h"

#include <platform/crypto_container.h>
#include <platform/secure_storage.h>

#include <cstdint>
#include <memory>
#include <string>

/// Held by CBillingSingleton<CBillingSecureStorageUtil>. Thread: named data and rsa_private_encrypt any;
/// certificate and key only the connector's worker.
class CBillingSecureStorageUtil {
public:
    /// Makes the credential, and verifies or stores the device's key in the key store; may take seconds with
    /// a slow token. Failures are logged only; a missing key later makes TLS handshakes fail.
    CBillingSecureStorageUtil();
    /// Releases the cached certificate and key.
    ~CBillingSecureStorageUtil() = default;
    CBillingSecureStorageUtil(const CBillingSecureStorageUtil&) = delete;
    CBillingSecureStorageUtil& operator=(const CBillingSecureStorageUtil&) = delete;

    /// Reads named data. This and the two below refuse a name that contains a NUL.
    /// @param[out] strData unchanged when there is no data
    /// @return false when the secure storage refused
    bool SecureRead(const std::string& strName, std::string& strData);
    /// Replaces named data.
    /// @return false when the secure storage refused; the old data are deleted then
    bool SecureWrite(const std::string& strName, const std::string& strData);
    /// Deletes named data.
    /// @return false when the secure storage refused
    bool SecureClear(const std::string& strName);

    /// Hands out the device's certificate, and a key with its public part that signs in the key store.
    /// Both are shared with a cache; as long as one of them is missing, both are made again.
    /// @param[out] cert empty when there is none
    /// @param[out] key empty when there is none
    void getDevCertAndPKey(std::shared_ptr<X509>& cert, std::shared_ptr<RSA>& key);

    /// OpenSSL's private operation of that key: pads the bytes (PKCS#1 type 1, whatever the padding code)
    /// and has the key store sign the block.
    /// @param to room for RSA_size(rsa) bytes
    /// @return bytes written; -1 when the key store failed; 0 without an instance of this class
    static int rsa_private_encrypt(int flen, const unsigned char* from, unsigned char* to, RSA* rsa,
                                   int padding);

    /// Does nothing: the constructor has stored the key.
    /// @return true
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

/// Path of the device's certificate.
inline constexpr char BILLING_DEVICE_CERTIFICATE[] =
    "/usr/apps/org.plevo.billing-api/res/certificate/bgclient.crt";
/// Opens the device's certificate.
/// @return null when the file cannot be opened or may have no end, such as a pipe: reading that would
///   block the thread of all transfers
BillingOpenSslPtr<BIO> OpenDeviceCertificate();
/// Bytes of the device's key, and of the blocks that it signs.
inline constexpr int BILLING_KEY_BYTES = 256;

struct BillingStoreFree {
    void operator()(unsigned char* pBuffer) const { ss_free_buffer(pBuffer); }
};
/// Owns a buffer of the secure storage.
using BillingStoreBuffer = std::unique_ptr<unsigned char, BillingStoreFree>;
