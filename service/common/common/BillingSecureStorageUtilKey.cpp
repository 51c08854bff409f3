// BillingSecureStorageUtilKey.cpp - the device's key in the key store: verified against the device's
// certificate, and stored from the device's sealed key material when it is missing.
//
//   valid                      nothing to do
//   absent, or another key     stored, if the device has key material, and verified again
//   than the certificate's
//   cannot be determined       unchanged, the key's id is kept: it works once the token is back
#include "BillingLog.h"
#include "BillingSecureStorageUtil.h"

#include <platform/deployment.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

using Block = std::array<unsigned char, BILLING_KEY_BYTES>;

constexpr int KEY_PART_BYTES = BILLING_KEY_BYTES + 1;
// The functions below log under one name, as one operation.
constexpr const char* OPERATION = "CBillingSecureStorageUtil";

struct ContainerDestroy {
    void operator()(CryptoCoreContainer* pContainer) const
    {
        destroy_CryptoCoreContainer(pContainer);
    }
};
using ContainerPtr = std::unique_ptr<CryptoCoreContainer, ContainerDestroy>;

struct HeapFree {
    void operator()(unsigned char* pBytes) const { std::free(pBytes); }
};

// The decrypted parts of the private key, erased at the end of the scope.
struct KeyParts {
    KeyParts() = default;
    ~KeyParts()
    {
        OPENSSL_cleanse(aFirst.data(), aFirst.size());
        OPENSSL_cleanse(aSecond.data(), aSecond.size());
    }
    KeyParts(const KeyParts&) = delete;
    KeyParts& operator=(const KeyParts&) = delete;

    std::array<unsigned char, KEY_PART_BYTES> aFirst{};
    std::array<unsigned char, KEY_PART_BYTES> aSecond{};
};

// The certificate's public key, which the key in the store has to match.
struct PublicKey {
    Block aModulus{};
    Block aExponent{};
    size_t uExponentSize = 0;
};

bool ReadPublicKey(PublicKey& tKey)
{
    const BillingOpenSslPtr<BIO> pFile = OpenDeviceCertificate();
    const BillingOpenSslPtr<X509> pCert(
        pFile != nullptr ? PEM_read_bio_X509(pFile.get(), nullptr, nullptr, nullptr) : nullptr);
    const BillingOpenSslPtr<EVP_PKEY> pKey(X509_get_pubkey(pCert.get()));
    const BillingOpenSslPtr<RSA> pRsa(pKey != nullptr ? EVP_PKEY_get1_RSA(pKey.get()) : nullptr);
    if (pRsa == nullptr || RSA_size(pRsa.get()) != BILLING_KEY_BYTES) {
        return false;
    }
    const BIGNUM* pModulus = nullptr;
    const BIGNUM* pExponent = nullptr;
    RSA_get0_key(pRsa.get(), &pModulus, &pExponent, nullptr);
    if (BN_num_bytes(pExponent) > BILLING_KEY_BYTES) {
        return false;
    }
    tKey.uExponentSize = static_cast<size_t>(BN_bn2bin(pExponent, tKey.aExponent.data()));
    return BN_bn2bin(pModulus, tKey.aModulus.data()) == BILLING_KEY_BYTES;
}

// @return a container with the certificate's public key; null, with a line in the log, when there is none
ContainerPtr ReferenceContainer()
{
    PublicKey tKey;
    CryptoCoreContainer* pMade = nullptr;
    if (!ReadPublicKey(tKey) || create_CryptoCoreContainer(CC_RSA, &pMade) != 0) {
        BILLING_ERROR_AS(OPERATION, "Internal error, OpenSSL objects are not created");
        return nullptr;
    }
    ContainerPtr pContainer(pMade);
    BILLING_DEBUG_AS(OPERATION, "Set CC key pair");
    const int iResult =
        pContainer->set_public_key(pMade, tKey.aModulus.data(), tKey.aModulus.size(),
                                   tKey.aExponent.data(), tKey.uExponentSize);
    BILLING_DEBUG_AS(OPERATION, "Set CC key pair result %d", iResult);
    if (iResult != 0) {
        BILLING_ERROR_AS(OPERATION, "the certificate's public key is refused (%d)", iResult);
        return nullptr;
    }
    return pContainer;
}

// Makes the block for a test signature: any text, with signature padding, which some tokens check.
bool TestBlock(Block& aBlock)
{
    constexpr unsigned char TEXT[] = "billing service, verification of the device key";
    return RSA_padding_add_PKCS1_type_1(aBlock.data(), BILLING_KEY_BYTES, TEXT, sizeof TEXT) == 1;
}

}  // namespace

CBillingSecureStorageUtil::CBillingSecureStorageUtil()
    : m_tCredential{}, m_iStorageFlags(33), m_iKeyId(0)
{
    // The credential stays zero when the platform has none: secure storage then refuses each access.
    std::uint32_t aWords[5] = {};
    deployment_get_credential(aWords);
    ss_init_credential(&m_tCredential, aWords[0], aWords[1], aWords[2], aWords[3], aWords[4], 1, 0);
    deployment_get_key_id(&m_iKeyId);
    m_PrepareDevKey();
}

void CBillingSecureStorageUtil::m_PrepareDevKey()
{
    const CBillingOpenSslErrors oErrors;
    const KeyState eState = m_VerifyKey();
    const bool bMissing = eState == KeyState::Absent || eState == KeyState::Invalid;
    // No id, no key: a key under an unknown id is never found again, and each start would add another.
    if (bMissing && m_iKeyId != 0 && m_StoreKey()) {
        m_VerifyKey();
    }
}

CBillingSecureStorageUtil::KeyState CBillingSecureStorageUtil::m_VerifyKey() const
{
    BILLING_INFO_AS(OPERATION, "Verify the private key");
    Block aIn;
    if (!TestBlock(aIn)) {
        BILLING_ERROR_AS(OPERATION, "Internal error, OpenSSL objects are not created");
        return KeyState::Unknown;
    }
    unsigned char* pBlock = aIn.data();
    size_t uBlockSize = aIn.size();
    const int iResult =
        m_iKeyId != 0 ? ss_encrypt_by_key(&m_tCredential, m_iKeyId, &pBlock, &uBlockSize, 0, 0)
                      : SS_ERROR_NOT_FOUND;
    if (iResult != 0) {
        BILLING_ERROR_AS(OPERATION,
                         "Cannot process with KeyStorage {%d}. Possibly the key is not present.",
                         iResult);
        return iResult == SS_ERROR_NOT_FOUND ? KeyState::Absent : KeyState::Unknown;
    }
    const BillingStoreBuffer pOwner(pBlock);

    const ContainerPtr pContainer = ReferenceContainer();
    if (pContainer == nullptr) {
        return KeyState::Unknown;
    }
    Block aOut{};
    size_t uOutSize = aOut.size();
    const int iDecrypted =
        pContainer->ae_decrypt(pContainer.get(), pBlock, uBlockSize, aOut.data(), &uOutSize);
    BILLING_DEBUG_AS(OPERATION, "ae_decrypt returned %d, %u bytes", iDecrypted,
                     static_cast<unsigned>(uOutSize));
    if (iDecrypted != 0) {
        BILLING_ERROR_AS(OPERATION, "failed to decrypt (%d)", iDecrypted);
    } else {
        const int iCompared = std::memcmp(aIn.data(), aOut.data(), aIn.size());
        BILLING_DEBUG_AS(OPERATION, "compare in&out %d", iCompared);
        if (iCompared == 0) {
            BILLING_INFO_AS(OPERATION, "Private key is valid");
            return KeyState::Valid;
        }
    }
    BILLING_ERROR_AS(OPERATION, "The stored key is invalid!");
    return KeyState::Invalid;
}

bool CBillingSecureStorageUtil::m_StoreKey()
{
    unsigned char* pMaterial = nullptr;
    size_t uMaterialSize = 0;
    if (deployment_get_key_material(&pMaterial, &uMaterialSize) != 0) {
        return false;  // no key material: the key was generated inside the key store
    }
    const std::unique_ptr<unsigned char, HeapFree> pOwner(pMaterial);
    const ContainerPtr pContainer = ReferenceContainer();
    if (pContainer == nullptr) {
        return false;
    }
    KeyParts tParts;
    const int iOpened = pContainer->open_key_material(pContainer.get(), pMaterial, uMaterialSize,
                                                      tParts.aFirst.data(), tParts.aSecond.data());
    if (iOpened != 0) {
        BILLING_ERROR_AS(OPERATION, "failed to decrypt (%d)", iOpened);
        return false;
    }
    const std::int32_t iExpectedId = m_iKeyId;
    const int iResult = ss_store_rsa_key(
        &m_tCredential, SS_KEY_RSA, SS_KEY_SIGN, tParts.aFirst.data(), tParts.aFirst.size(),
        tParts.aSecond.data(), tParts.aSecond.size(), 0, 0, &m_iKeyId, 0, 0);
    BILLING_INFO_AS(OPERATION, "Store key result %d", iResult);
    if (iResult != 0) {
        BILLING_ERROR_AS(OPERATION, "ss_store_rsa_key Error!");
        return false;
    }
    if (m_iKeyId != iExpectedId) {
        BILLING_ERROR_AS(OPERATION, "key is stored with the wrong id!");
        ss_remove_key(&m_tCredential, m_iKeyId);
        m_iKeyId = 0;
        return false;
    }
    return true;
}
