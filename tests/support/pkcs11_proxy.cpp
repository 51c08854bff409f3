// pkcs11_proxy.cpp - a PKCS#11 module in front of the software token's.
#include "pkcs11_proxy.h"

#include <dlfcn.h>
#include <openssl/err.h>
#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <thread>

using proxy::Fault;

namespace {

CK_FUNCTION_LIST* g_real = nullptr;
CK_FUNCTION_LIST g_calls;
proxy::Control g_control;

const std::map<std::string, Fault> kNames = {{"None", Fault::None},
                                             {"ShortBlock", Fault::ShortBlock},
                                             {"WrongBlock", Fault::WrongBlock},
                                             {"NoRawRsa", Fault::NoRawRsa},
                                             {"Removed", Fault::Removed},
                                             {"PinFinalTry", Fault::PinFinalTry}};

/// Records a call and reads the fault that the test's process has set.
void enter(const char* call)
{
    const char* const folder = getenv(proxy::kFolderVariable);
    if (folder == nullptr)
        return;
    const std::string path = folder;
    std::ofstream(path + "/calls", std::ios::app) << call << '\n';
    std::ifstream file(path + "/fault");
    std::string name;
    int delayMs = 0;
    const bool told = static_cast<bool>(file >> name >> delayMs);
    g_control.fault = told ? kNames.at(name) : Fault::None;
    g_control.delayMs = delayMs;
}

CK_RV initialize(void* arguments)
{
    const auto* const given = static_cast<CK_C_INITIALIZE_ARGS*>(arguments);
    if (g_control.fault == Fault::NoStart)
        return CKR_GENERAL_ERROR;
    if (given != nullptr && g_control.fault == Fault::CannotLock)
        return CKR_CANT_LOCK;
    g_control.startFlags = given == nullptr ? 0 : given->flags;
    return g_real->C_Initialize(arguments);
}

CK_RV finalize(void* reserved)
{
    g_control.openSessions = 0;
    return g_real->C_Finalize(reserved);
}

CK_RV openSession(CK_SLOT_ID slot, CK_FLAGS flags, void* context, CK_NOTIFY notify,
                  CK_SESSION_HANDLE* session)
{
    g_control.sessions++;
    g_control.sessionFlags = flags;
    const CK_RV answer = g_real->C_OpenSession(slot, flags, context, notify, session);
    if (answer == CKR_OK && ++g_control.openSessions > g_control.mostSessions)
        g_control.mostSessions = g_control.openSessions.load();
    return answer;
}

CK_RV closeSession(CK_SESSION_HANDLE session)
{
    const CK_RV answer = g_real->C_CloseSession(session);
    g_control.openSessions -= answer == CKR_OK ? 1 : 0;
    return answer;
}

CK_RV login(CK_SESSION_HANDLE session, CK_USER_TYPE user, unsigned char* pin, CK_ULONG size)
{
    enter("login");
    g_control.logins++;
    if (g_control.fault == Fault::PinLocked)
        return CKR_PIN_LOCKED;
    if (g_control.fault == Fault::PinLength)
        return CKR_PIN_LEN_RANGE;
    return g_real->C_Login(session, user, pin, size);
}

CK_RV getTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* token)
{
    enter("look");
    const CK_RV answer = g_real->C_GetTokenInfo(slot, token);
    if (answer == CKR_OK && g_control.fault == Fault::PinFinalTry)
        token->flags |= CKF_USER_PIN_FINAL_TRY;
    if (answer == CKR_OK && g_control.fault == Fault::OtherToken)
        token->label[0] = '?';
    if (answer == CKR_OK && g_control.fault == Fault::Twins) {
        std::fill(std::begin(token->label), std::end(token->label), ' ');
        std::copy_n("twin", 4, token->label);
    }
    if (answer == CKR_OK && g_control.fault == Fault::NulPadded)
        std::replace(std::begin(token->label), std::end(token->label), ' ', '\0');
    return answer;
}

CK_RV getMechanismInfo(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info)
{
    if (type == CKM_RSA_X_509 && g_control.fault == Fault::NoRawRsa)
        return CKR_MECHANISM_INVALID;
    const CK_RV answer = g_real->C_GetMechanismInfo(slot, type, info);
    if (type == CKM_RSA_X_509 && g_control.fault == Fault::RawRsaDecrypts)
        info->flags &= ~CK_FLAGS{CKF_SIGN};
    return answer;
}

CK_RV findObjects(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* objects, CK_ULONG room,
                  CK_ULONG* count)
{
    const Fault fault = g_control.fault;
    if (fault == Fault::SearchFails)
        return CKR_DEVICE_MEMORY;
    const CK_ULONG asked = fault == Fault::OneAtATime ? 1 : room;
    const CK_RV answer = g_real->C_FindObjects(session, objects, asked, count);
    if (fault == Fault::MoreThanRoom)
        *count = 1000;
    if (fault == Fault::WithoutEnd)
        *count = 1;
    return answer;
}

bool isInitialized(CK_SLOT_ID slot)
{
    CK_TOKEN_INFO token{};
    return g_real->C_GetTokenInfo(slot, &token) == CKR_OK &&
           (token.flags & CKF_TOKEN_INITIALIZED) != 0;
}

/// The software token adds a slot with a blank token; this list is without it.
CK_RV getInitializedSlots(CK_SLOT_ID* slots, CK_ULONG* count)
{
    CK_SLOT_ID all[8];
    CK_ULONG found = std::size(all);
    const CK_RV answer = g_real->C_GetSlotList(CK_TRUE, all, &found);
    if (answer != CKR_OK)
        return answer;
    const auto* const end = std::stable_partition(all, all + found, isInitialized);
    *count = static_cast<CK_ULONG>(end - all);
    if (slots != nullptr)
        std::copy(std::cbegin(all), end, slots);
    return CKR_OK;
}

CK_RV getSlotList(unsigned char present, CK_SLOT_ID* slots, CK_ULONG* count)
{
    const Fault fault = g_control.fault;
    if (fault == Fault::OneSlot)
        return getInitializedSlots(slots, count);
    if (fault == Fault::SlotAdded && slots != nullptr)
        g_control.fault = Fault::None;
    if ((fault == Fault::SlotAdded || fault == Fault::SlotsGrow) && slots != nullptr)
        return CKR_BUFFER_TOO_SMALL;
    const CK_RV answer = g_real->C_GetSlotList(present, slots, count);
    if (fault == Fault::ManySlots)
        *count = ~CK_ULONG{0} / 16;
    if (fault == Fault::SlotGone && slots == nullptr)
        (*count)++;
    if (fault == Fault::SlotsBeyond && slots != nullptr)
        *count = ~CK_ULONG{0} / 16;
    return answer;
}

CK_RV getAttributeValue(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                        CK_ATTRIBUTE* attributes, CK_ULONG count)
{
    const bool asksForLength = count == 1 && attributes->pValue == nullptr;
    const CK_RV answer = g_real->C_GetAttributeValue(session, object, attributes, count);
    if (answer == CKR_OK && asksForLength && g_control.fault == Fault::RoundedLengths)
        attributes->ulValueLen += 8;
    return answer;
}

CK_RV signInit(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key)
{
    enter("init");
    const Fault fault = g_control.fault;
    if (mechanism->mechanism == CKM_RSA_X_509 &&
        (fault == Fault::NoRawRsa || fault == Fault::RawRsaListed))
        return CKR_MECHANISM_INVALID;
    if (mechanism->mechanism == CKM_RSA_X_509 && fault == Fault::RawRsaDecrypts)
        return CKR_KEY_FUNCTION_NOT_PERMITTED;
    return g_real->C_SignInit(session, mechanism, key);
}

CK_RV sign(CK_SESSION_HANDLE session, unsigned char* data, CK_ULONG size, unsigned char* signature,
           CK_ULONG* length)
{
    enter("sign");
    g_control.signatures++;
    const int inside = ++g_control.inside;
    if (inside > g_control.mostInside)
        g_control.mostInside = inside;
    std::this_thread::sleep_for(std::chrono::milliseconds(g_control.delayMs));
    CK_RV answer = g_real->C_Sign(session, data, size, signature, length);
    const Fault fault = g_control.fault;
    if (answer == CKR_OK && fault == Fault::ShortBlock)
        (*length)--;
    if (answer == CKR_OK && fault == Fault::WrongBlock)
        signature[*length / 2] ^= 1;
    if (fault == Fault::ErrorsLeft)
        ERR_raise(ERR_LIB_USER, ERR_R_INTERNAL_ERROR);
    if (fault == Fault::FunctionFailed)
        answer = CKR_FUNCTION_FAILED;
    if (fault == Fault::UnnamedAnswer)
        answer = CKR_VENDOR_DEFINED | 0x2a;
    if (fault == Fault::RemovedOnce || fault == Fault::Removed) {
        closeSession(session);
        answer = CKR_DEVICE_REMOVED;
    }
    if (fault == Fault::RemovedOnce)
        g_control.fault = Fault::None;
    g_control.inside--;
    return answer;
}

}  // namespace

extern "C" {
__attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list);
__attribute__((visibility("default"))) proxy::Control* test_pkcs11_proxy_control();
}

CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list)
{
    const char* const path = getenv(proxy::kRealVariable);
    void* const library = path == nullptr ? nullptr : dlopen(path, RTLD_NOW | RTLD_LOCAL);
    const auto entry =
        library == nullptr
            ? nullptr
            : reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
    if (entry == nullptr || entry(&g_real) != CKR_OK)
        return CKR_GENERAL_ERROR;
    g_calls = *g_real;
    g_calls.C_Initialize = initialize;
    g_calls.C_Finalize = finalize;
    g_calls.C_GetSlotList = getSlotList;
    g_calls.C_OpenSession = openSession;
    g_calls.C_CloseSession = closeSession;
    g_calls.C_Login = login;
    g_calls.C_GetTokenInfo = getTokenInfo;
    g_calls.C_GetMechanismInfo = getMechanismInfo;
    g_calls.C_FindObjects = findObjects;
    g_calls.C_GetAttributeValue = getAttributeValue;
    g_calls.C_SignInit = signInit;
    g_calls.C_Sign = sign;
    *list = &g_calls;
    return CKR_OK;
}

proxy::Control* test_pkcs11_proxy_control()
{
    return &g_control;
}
