// pkcs11_liar.cpp - a PKCS#11 module that answers what it is fed with: any number, any error, any content. It never
// writes beyond the room that it is given, from which nobody could protect himself.
#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

const std::uint8_t* g_at = nullptr;
const std::uint8_t* g_end = nullptr;

std::uint8_t next()
{
    return g_at < g_end ? *g_at++ : 0xff;
}

/// Fails once there is no more to answer with, so that every loop has an end.
CK_RV answer()
{
    constexpr CK_RV kFailures[] = {CKR_GENERAL_ERROR,       CKR_ATTRIBUTE_TYPE_INVALID,
                                   CKR_BUFFER_TOO_SMALL,    CKR_DEVICE_REMOVED,
                                   CKR_ATTRIBUTE_SENSITIVE, CKR_MECHANISM_INVALID,
                                   CKR_KEY_HANDLE_INVALID,  CKR_VENDOR_DEFINED};
    if (g_at == g_end)
        return CKR_FUNCTION_FAILED;
    const std::uint8_t byte = next();
    return byte < 0xc0 ? CKR_OK : kFailures[byte & 7];
}

CK_ULONG number()
{
    const std::uint8_t byte = next();
    if (byte < 0xf0)
        return byte == 0xef ? 256 : byte;
    CK_ULONG whole = 0;
    for (std::size_t i = 0; i < sizeof whole; i++)
        whole = whole << 8 | next();
    return whole;
}

void fill(void* room, std::size_t size)
{
    auto* const bytes = static_cast<std::uint8_t*>(room);
    const std::size_t there = std::min<std::size_t>(size, static_cast<std::size_t>(g_end - g_at));
    std::copy_n(g_at, there, bytes);
    std::fill(bytes + there, bytes + size, std::uint8_t{0xff});
    g_at += there;
}

CK_RV initialize(void*)
{
    return CKR_OK;
}

CK_RV getSlotList(unsigned char, CK_SLOT_ID* slots, CK_ULONG* count)
{
    const CK_ULONG room = *count;
    *count = number();
    if (slots != nullptr)
        fill(slots, std::min(room, *count) * sizeof *slots);
    return answer();
}

CK_RV getTokenInfo(CK_SLOT_ID, CK_TOKEN_INFO* token)
{
    std::memset(token, ' ', sizeof *token);
    token->label[0] = next();
    return answer();
}

CK_RV getMechanismInfo(CK_SLOT_ID, CK_MECHANISM_TYPE, CK_MECHANISM_INFO* info)
{
    info->flags = CKF_SIGN;
    return answer();
}

CK_RV openSession(CK_SLOT_ID, CK_FLAGS, void*, CK_NOTIFY, CK_SESSION_HANDLE* session)
{
    *session = 1;
    return answer();
}

CK_RV closeSession(CK_SESSION_HANDLE)
{
    return CKR_OK;
}

CK_RV findObjectsInit(CK_SESSION_HANDLE, CK_ATTRIBUTE*, CK_ULONG)
{
    return answer();
}

CK_RV findObjects(CK_SESSION_HANDLE, CK_OBJECT_HANDLE* objects, CK_ULONG room, CK_ULONG* count)
{
    *count = number();
    fill(objects, std::min(room, *count) * sizeof *objects);
    return answer();
}

CK_RV getAttributeValue(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE* attributes, CK_ULONG)
{
    const CK_ULONG room = attributes->ulValueLen;
    attributes->ulValueLen = number();
    if (attributes->pValue != nullptr)
        fill(attributes->pValue, std::min(room, attributes->ulValueLen));
    return answer();
}

CK_RV signInit(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE)
{
    return answer();
}

CK_RV sign(CK_SESSION_HANDLE, unsigned char*, CK_ULONG, unsigned char* signature, CK_ULONG* length)
{
    const CK_ULONG room = *length;
    *length = number();
    fill(signature, std::min(room, *length));
    return answer();
}

}  // namespace

extern "C" {
__attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list);
/// What it answers with from here on.
__attribute__((visibility("default"))) void test_pkcs11_feed(const std::uint8_t* data,
                                                             std::size_t size);
}

CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list)
{
    static CK_FUNCTION_LIST calls{};
    calls.C_Initialize = initialize;
    calls.C_GetSlotList = getSlotList;
    calls.C_GetTokenInfo = getTokenInfo;
    calls.C_GetMechanismInfo = getMechanismInfo;
    calls.C_OpenSession = openSession;
    calls.C_CloseSession = closeSession;
    calls.C_FindObjectsInit = findObjectsInit;
    calls.C_FindObjects = findObjects;
    calls.C_FindObjectsFinal = closeSession;
    calls.C_GetAttributeValue = getAttributeValue;
    calls.C_SignInit = signInit;
    calls.C_Sign = sign;
    *list = &calls;
    return CKR_OK;
}

void test_pkcs11_feed(const std::uint8_t* data, std::size_t size)
{
    g_at = data;
    g_end = data + size;
}
