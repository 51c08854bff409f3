// token_keys.cpp - the service's RSA keys on a token.
#include "token_keys.h"

#include "common/raw_rsa.h"
#include "seal.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>

namespace tokenkeys {

namespace {

using pkcs11::Attributes;
using pkcs11::Session;
using Objects = std::vector<CK_OBJECT_HANDLE>;

constexpr std::size_t kModulusBits = 2048;
constexpr unsigned char kPublicExponent[] = {1, 0, 1};
/// Type 1 padding: bytes before the 0xff filling, and the least length of the filling.
constexpr std::size_t kPaddingHead = 2;
constexpr std::size_t kPaddingLeast = 8;

std::array<unsigned char, 4> bytesOf(std::int32_t id)
{
    const auto number = static_cast<std::uint32_t>(id);
    return {static_cast<unsigned char>(number >> 24), static_cast<unsigned char>(number >> 16),
            static_cast<unsigned char>(number >> 8), static_cast<unsigned char>(number)};
}

Attributes keyAttributes(CK_OBJECT_CLASS kind, std::int32_t id)
{
    const auto bytes = bytesOf(id);
    Attributes attributes;
    attributes.number(CKA_CLASS, kind)
        .number(CKA_KEY_TYPE, CKK_RSA)
        .bytes(CKA_ID, bytes.data(), bytes.size());
    return attributes;
}

Objects objects(const Session& session, CK_OBJECT_CLASS kind, std::int32_t id)
{
    Attributes wanted = keyAttributes(kind, id);
    return session.find(wanted);
}

CK_OBJECT_HANDLE privateObject(const Session& session, std::int32_t id)
{
    const Objects found = objects(session, CKO_PRIVATE_KEY, id);
    const std::string shown = "private key with CKA_ID " + shownId(id);
    if (found.empty())
        throw secure::Error(SS_ERROR_NOT_FOUND, "there is no " + shown +
                                                    "; [deployment] key_id must name one, "
                                                    "billing-provision request makes one");
    if (found.size() > 1)
        throw secure::Error(SS_ERROR_BROKEN, "there is more than one " + shown +
                                                 "; remove all but the one of the certificate");
    return found.front();
}

std::optional<rawrsa::PublicKey> publicPart(const Session& session, CK_OBJECT_HANDLE object)
{
    const auto modulus = session.value(object, CKA_MODULUS);
    const auto exponent = session.value(object, CKA_PUBLIC_EXPONENT);
    if (!modulus || !exponent)
        return std::nullopt;
    return rawrsa::publicKey(modulus->data(), modulus->size(), exponent->data(), exponent->size());
}

/// Prefers the numbers of the private object: a public object of the same id may be of another key.
rawrsa::PublicKey publicKeyOf(const Session& session, CK_OBJECT_HANDLE key, std::int32_t id)
{
    if (const auto own = publicPart(session, key))
        return *own;
    for (const CK_OBJECT_HANDLE object : objects(session, CKO_PUBLIC_KEY, id)) {
        if (const auto other = publicPart(session, object))
            return *other;
    }
    throw secure::Error(SS_ERROR_BROKEN,
                        "the key with CKA_ID " + shownId(id) +
                            " is none of 2048 bits or does not show its public part, so that its "
                            "signatures cannot be checked; put the public key beside it");
}

/// The content of a block with type 1 padding.
/// @throw secure::Error for any other block
std::pair<const unsigned char*, std::size_t> unpadded(const unsigned char* block)
{
    const unsigned char* const end = block + rawrsa::kBlockSize;
    const unsigned char* const zero =
        std::find_if(block + kPaddingHead, end, [](unsigned char byte) { return byte != 0xff; });
    if (block[0] != 0 || block[1] != 1 || zero == end || *zero != 0 ||
        zero < block + kPaddingHead + kPaddingLeast)
        throw secure::Error(SS_ERROR_REFUSED,
                            "the token has no CKM_RSA_X_509, and without it only blocks with type "
                            "1 padding can be done; take a token that has it");
    return {zero + 1, static_cast<std::size_t>(end - zero - 1)};
}

secret::Bytes rawSignature(const Session& session, CK_OBJECT_HANDLE key, const unsigned char* block)
{
    if (session.offers(CKM_RSA_X_509)) {
        try {
            return session.sign(CKM_RSA_X_509, key, block, rawrsa::kBlockSize);
        } catch (const pkcs11::Failure& failure) {
            // Some tokens list the mechanism and refuse it.
            if (failure.answer() != CKR_MECHANISM_INVALID)
                throw;
        }
    }
    const auto [content, size] = unpadded(block);
    return session.sign(CKM_RSA_PKCS, key, content, size);
}

secret::Bytes checkedOperation(const Session& session, CK_OBJECT_HANDLE key,
                               const rawrsa::PublicKey& publicKey, const unsigned char* block)
{
    secret::Bytes result = rawSignature(session, key, block);
    unsigned char back[rawrsa::kBlockSize];
    if (result.size() != rawrsa::kBlockSize ||
        !rawrsa::publicOperation(publicKey, result.data(), back) ||
        !std::equal(block, block + rawrsa::kBlockSize, back))
        throw secure::Error(SS_ERROR_BROKEN,
                            "the token gave a block that is short or that its public key does not "
                            "take back; it is not used, replace the token or its key");
    return result;
}

void prove(const Session& session, CK_OBJECT_HANDLE key, const rawrsa::PublicKey& publicKey)
{
    const secret::Bytes content = seal::random(seal::kDigestSize);
    const secret::Bytes block = rawrsa::paddedBlock(content.data(), content.size());
    checkedOperation(session, key, publicKey, block.data());
}

/// Cleans up after a failure. An object that cannot be removed is reported later, as a second key.
void discard(const Session& session, const Objects& objects)
{
    for (const CK_OBJECT_HANDLE object : objects) {
        try {
            session.destroy(object);
        } catch (const secure::Error&) {
            continue;
        }
    }
}

/// @param signOnly adds the attributes that forbid decryption and unwrapping; some tokens refuse
///   them
Attributes privateAttributes(std::int32_t id, bool signOnly)
{
    Attributes attributes = keyAttributes(CKO_PRIVATE_KEY, id);
    attributes.text(CKA_LABEL, "billing")
        .flag(CKA_TOKEN, true)
        .flag(CKA_PRIVATE, true)
        .flag(CKA_SENSITIVE, true)
        .flag(CKA_EXTRACTABLE, false)
        .flag(CKA_SIGN, true);
    if (signOnly)
        attributes.flag(CKA_DECRYPT, false).flag(CKA_UNWRAP, false);
    return attributes;
}

Attributes publicAttributes(std::int32_t id)
{
    Attributes attributes = keyAttributes(CKO_PUBLIC_KEY, id);
    attributes.text(CKA_LABEL, "billing").flag(CKA_TOKEN, true).flag(CKA_VERIFY, true);
    return attributes;
}

CK_OBJECT_HANDLE createPrivate(const Session& session, std::int32_t id,
                               const rawrsa::PrivateKey& key)
{
    Attributes attributes = privateAttributes(id, true);
    attributes.bytes(CKA_MODULUS, key.modulus)
        .bytes(CKA_PUBLIC_EXPONENT, key.publicExponent)
        .bytes(CKA_PRIVATE_EXPONENT, key.privateExponent)
        .bytes(CKA_PRIME_1, key.prime1)
        .bytes(CKA_PRIME_2, key.prime2)
        .bytes(CKA_EXPONENT_1, key.exponent1)
        .bytes(CKA_EXPONENT_2, key.exponent2)
        .bytes(CKA_COEFFICIENT, key.coefficient);
    return session.create(attributes);
}

CK_OBJECT_HANDLE createPublic(const Session& session, std::int32_t id, const rawrsa::PublicKey& key)
{
    Attributes attributes = publicAttributes(id);
    attributes.bytes(CKA_MODULUS, key.modulus).bytes(CKA_PUBLIC_EXPONENT, key.exponent);
    return session.create(attributes);
}

}  // namespace

std::string shownId(std::int32_t id)
{
    char text[9];
    snprintf(text, sizeof text, "%08x", static_cast<unsigned>(id));
    return text;
}

secret::Bytes privateOperation(const Session& session, std::int32_t id, const unsigned char* block)
{
    const CK_OBJECT_HANDLE key = privateObject(session, id);
    const rawrsa::PublicKey publicKey = publicKeyOf(session, key, id);
    return checkedOperation(session, key, publicKey, block);
}

void import(const Session& session, std::int32_t id, const rawrsa::PrivateKey& key)
{
    Objects old = objects(session, CKO_PRIVATE_KEY, id);
    const Objects oldPublic = objects(session, CKO_PUBLIC_KEY, id);
    Objects made;
    try {
        made.push_back(createPrivate(session, id, key));
        made.push_back(createPublic(session, id, key.publicKey()));
        prove(session, made.front(), key.publicKey());
    } catch (const std::exception&) {
        discard(session, made);
        throw;
    }
    old.insert(old.end(), oldPublic.begin(), oldPublic.end());
    for (const CK_OBJECT_HANDLE object : old)
        session.destroy(object);
}

std::int32_t freeId(const Session& session)
{
    for (std::int32_t id = 1; id < std::numeric_limits<std::int32_t>::max(); id++) {
        if (!exists(session, id))
            return id;
    }
    throw secure::Error(SS_ERROR_REFUSED, "every number has a key");
}

bool exists(const Session& session, std::int32_t id)
{
    return !objects(session, CKO_PRIVATE_KEY, id).empty();
}

void generate(const Session& session, std::int32_t id, bool signOnly)
{
    if (exists(session, id))
        throw secure::Error(SS_ERROR_REFUSED, "CKA_ID " + shownId(id) + " has a private key");
    Attributes publicKey = publicAttributes(id);
    publicKey.number(CKA_MODULUS_BITS, kModulusBits)
        .bytes(CKA_PUBLIC_EXPONENT, kPublicExponent, sizeof kPublicExponent);
    Attributes privateKey = privateAttributes(id, signOnly);
    const Objects made = session.generate(publicKey, privateKey);
    try {
        prove(session, id);
    } catch (const std::exception&) {
        discard(session, made);
        throw;
    }
}

rawrsa::PublicKey publicKey(const Session& session, std::int32_t id)
{
    return publicKeyOf(session, privateObject(session, id), id);
}

std::string faultIn(const Session& session, std::int32_t id)
{
    struct Rule {
        CK_ATTRIBUTE_TYPE attribute;
        bool value;
        const char* fault;
    };
    constexpr Rule kRules[] = {
        {CKA_SIGN, true, "does not sign"},
        {CKA_EXTRACTABLE, false, "can be taken out of the token (CKA_EXTRACTABLE)"},
        {CKA_SENSITIVE, true, "is shown by the token (CKA_SENSITIVE)"},
        {CKA_DECRYPT, false, "may decrypt as well (CKA_DECRYPT)"},
        {CKA_UNWRAP, false, "may unwrap other keys as well (CKA_UNWRAP)"},
    };
    const CK_OBJECT_HANDLE key = privateObject(session, id);
    std::string faults;
    for (const Rule& rule : kRules) {
        const auto value = session.value(key, rule.attribute);
        // A token may not know the attribute.
        if (value && value->size() == 1 && (value->front() != CK_FALSE) != rule.value)
            faults += (faults.empty() ? "" : ", ") + std::string(rule.fault);
    }
    return faults;
}

void prove(const Session& session, std::int32_t id)
{
    const CK_OBJECT_HANDLE key = privateObject(session, id);
    prove(session, key, publicKeyOf(session, key, id));
}

bool remove(const Session& session, std::int32_t id)
{
    const Objects keys = objects(session, CKO_PRIVATE_KEY, id);
    for (const CK_OBJECT_HANDLE object : keys)
        session.destroy(object);
    for (const CK_OBJECT_HANDLE object : objects(session, CKO_PUBLIC_KEY, id))
        session.destroy(object);
    return !keys.empty();
}

}  // namespace tokenkeys
