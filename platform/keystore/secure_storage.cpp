// secure_storage.cpp - secure storage: named data in the vault at [keystore] store, keys in the key
// store, which is the token of [keystore].
#include "answered.h"
#include "common/raw_rsa.h"
#include "common/secure_rules.h"
#include "configuration.h"
#include "key_store.h"
#include "vault.h"

#include <platform/secure_storage.h>

#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>

namespace {

constexpr const char* kStorage = "secure storage";
constexpr const char* kKeys = "key store";

/// Header in front of each returned buffer; its size lets ss_free_buffer overwrite all of it.
struct alignas(std::max_align_t) Header {
    std::size_t size;
};

/// @return never null, also for no bytes
unsigned char* handOut(const secret::Bytes& bytes)
{
    auto* const header = static_cast<Header*>(malloc(sizeof(Header) + bytes.size() + 1));
    if (header == nullptr)
        throw std::bad_alloc();
    header->size = bytes.size();
    auto* const buffer = reinterpret_cast<unsigned char*>(header + 1);
    if (!bytes.empty())
        memcpy(buffer, bytes.data(), bytes.size());
    return buffer;
}

void require(bool holds)
{
    if (!holds)
        throw secure::Error(SS_ERROR_PARAMETER, "");
}

/// Location of the keys. The settings are read at the first use after ss_init_credential, which the
/// service calls at its start.
struct KeptPlace {
    std::mutex lock;
    std::optional<keystore::Place> place;
};

/// Never destroyed: another thread may sign while the process ends.
KeptPlace& keptPlace()
{
    static auto* const kept = new KeptPlace;
    return *kept;
}

keystore::Place placeOfKeys()
{
    KeptPlace& kept = keptPlace();
    const std::lock_guard<std::mutex> hold(kept.lock);
    if (!kept.place)
        kept.place = keystore::placeFromSettings();
    return *kept.place;
}

keystore::Vault vault()
{
    const auto folder = keystore::configuration().text("store");
    if (!folder) {
        keystore::configuration().reportMissing("store", "no named data can be kept");
        throw secure::Error(SS_ERROR_UNAVAILABLE, "");
    }
    return keystore::Vault(*folder);
}

}  // namespace

int ss_init_credential(ss_credential_s* credential, uint32_t w0, uint32_t w1, uint32_t w2,
                       uint32_t w3, uint32_t w4, uint32_t kind, uint32_t reserved)
{
    const ss_credential_s filled{{w0, w1, w2, w3, w4}, kind, reserved};
    if (credential == nullptr || !securerules::isCredential(&filled))
        return SS_ERROR_PARAMETER;
    *credential = filled;
    KeptPlace& kept = keptPlace();
    const std::lock_guard<std::mutex> hold(kept.lock);
    kept.place.reset();
    return SS_ERROR_NONE;
}

int ss_read(unsigned char** buffer, size_t* size, int, int, const char* name,
            const ss_credential_s* credential, int flags)
{
    return seam::answered(kStorage, [&] {
        require(buffer != nullptr && size != nullptr &&
                securerules::areArguments(name, credential, flags));
        const secret::Bytes data = vault().read(*credential, name);
        *buffer = handOut(data);
        *size = data.size();
    });
}

int ss_write(const unsigned char* data, size_t size, const void*, int, const char* name,
             const ss_credential_s* credential, int flags)
{
    return seam::answered(kStorage, [&] {
        require((data != nullptr || size == 0) && size <= securerules::kDataLimit &&
                securerules::areArguments(name, credential, flags));
        vault().write(*credential, name, data, size);
    });
}

int ss_delete(int, const char* name, const ss_credential_s* credential, int flags)
{
    return seam::answered(kStorage, [&] {
        require(securerules::areArguments(name, credential, flags));
        vault().remove(*credential, name);
    });
}

void ss_free_buffer(unsigned char* buffer)
{
    if (buffer == nullptr)
        return;
    Header* const header = reinterpret_cast<Header*>(buffer) - 1;
    OPENSSL_cleanse(buffer, header->size);
    free(header);
}

int ss_store_rsa_key(const ss_credential_s* credential, int type, int use,
                     const unsigned char* modulus, size_t modulus_size,
                     const unsigned char* exponent, size_t exponent_size, int, int, int32_t* key_id,
                     int, int)
{
    return seam::answered(kKeys, [&] {
        require(securerules::isCredential(credential) && type == SS_KEY_RSA && use == SS_KEY_SIGN &&
                key_id != nullptr);
        const auto key = rawrsa::recover(modulus, modulus_size, exponent, exponent_size);
        require(key.has_value());
        int32_t id = *key_id;
        keystore::instance().change(placeOfKeys(), [&](const pkcs11::Session& session) {
            id = *key_id != 0 ? *key_id : tokenkeys::freeId(session);
            tokenkeys::import(session, id, *key);
        });
        *key_id = id;
    });
}

int ss_encrypt_by_key(const ss_credential_s* credential, int32_t key_id, unsigned char** block,
                      size_t* size, int, int)
{
    return seam::answered(kKeys, [&] {
        require(securerules::isCredential(credential) && block != nullptr && *block != nullptr &&
                size != nullptr && *size == rawrsa::kBlockSize);
        secret::Bytes result;
        keystore::instance().read(placeOfKeys(), [&](const pkcs11::Session& session) {
            result = tokenkeys::privateOperation(session, key_id, *block);
        });
        *block = handOut(result);
        *size = result.size();
    });
}

int ss_remove_key(const ss_credential_s* credential, int32_t key_id)
{
    return seam::answered(kKeys, [&] {
        require(securerules::isCredential(credential));
        keystore::instance().change(placeOfKeys(), [&](const pkcs11::Session& session) {
            if (!tokenkeys::remove(session, key_id))
                throw secure::Error(SS_ERROR_NOT_FOUND, "there is no private key with CKA_ID " +
                                                            tokenkeys::shownId(key_id));
        });
    });
}
