// BillingEngine.cpp - the five requests, their results, and the pipe that carries the results to the main
// loop.
#include "BillingEngine.h"

#include "BillingHttpConnector.h"
#include "BillingLog.h"
#include "BillingTaskBase.h"

#include <platform/MZCurl.h>
#include <platform/network.h>

#include <fcntl.h>
#include <poll.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace {

// The engine always requests the first page of the account's invoices.
constexpr const char* PAGE_SIZE = "20";
constexpr const char* START_INDEX = "1";
constexpr const char* INVOICE_REQUEST_TYPE = "2";

constexpr const char* TEXT_NO_NETWORK = "Network error, please check!";
constexpr const char* TEXT_TRY_LATER = "Try again later.";

// Holds more results than the 32,768 calls that the bus lets one user have open. Also the largest pipe of an
// ordinary user on Linux (/proc/sys/fs/pipe-max-size).
constexpr int PIPE_BYTES = 1024 * 1024;

// Each message takes two writes, by the worker or the main thread: the lock keeps messages whole, and writes
// apart from the pipe's deletion. Global: a result may come while the engine is being destroyed.
pthread_mutex_t g_tPipeLock = PTHREAD_MUTEX_INITIALIZER;

bool HasRoom(Ecore_Pipe* pPipe)
{
    // A full pipe would block the writer; the main thread is also its reader and would wait for itself.
    pollfd tPoll{ecore_pipe_write_fd(pPipe), POLLOUT, 0};
    return poll(&tPoll, 1, 0) == 1 && (tPoll.revents & POLLOUT) != 0;
}

// First step of every response callback.
// @return null where there is no call to answer
std::unique_ptr<EngineRequestContext> TakeContext(const char* szOperation, void* pUserData)
{
    BILLING_DEBUG_AS(szOperation, "[START] ");
    if (pUserData == nullptr) {
        BILLING_REFUSED_AS(szOperation, "NULL == pUserData");
        return nullptr;
    }
    std::unique_ptr<EngineRequestContext> ptReq(static_cast<EngineRequestContext*>(pUserData));
    if (ptReq->pOwner == nullptr) {
        ptReq.reset();
    }
    return ptReq;
}

// The log of a response, shared by three of the five callbacks.
void LogResponse(const char* szOperation, bool bSuccess, const std::string& strRsp)
{
    BILLING_INFO_AS(szOperation, "bResponseCode :%d", bSuccess);
    BILLING_INFO_AS(szOperation, "strRsp :%s", strRsp.c_str());
}

// Last step of every response callback. No exception may leave it: C code calls the callbacks.
void SendResult(const char* szOperation, REQUEST_TYPE eType, const EngineRequestContext& tReq,
                bool bSuccess, std::string& strRsp) noexcept
{
    BILLING_RETURN_INFO_T tInfo;
    tInfo.iRespResult = bSuccess ? BILLING_RESULT_SUCCESS : BILLING_RESULT_HTTP_ERROR;
    tInfo.pUser = tReq.pUser;
    tInfo.pCount = MZCurl::CountBody(strRsp.size());
    try {
        // A large text is moved: copies would add up.
        if (tInfo.pCount != nullptr) {
            tInfo.strRespInfo.swap(strRsp);
        } else {
            tInfo.strRespInfo = strRsp;
        }
        tReq.pOwner->m_WriteRequestResultToPipe(eType, tInfo);
    } catch (const std::bad_alloc&) {
        BILLING_ERROR_AS(szOperation, "no memory for the response, it is answered as failed");
        tInfo.iRespResult = BILLING_RESULT_HTTP_ERROR;
        tInfo.strRespInfo.clear();
        tReq.pOwner->m_WriteRequestResultToPipe(eType, tInfo);
    }
    BILLING_DEBUG_AS(szOperation, "[END] ");
}

}  // namespace

CBillingEngine::~CBillingEngine()
{
    BILLING_DEBUG("[END] ");
}

bool CBillingEngine::RegisterPipeCallback(void (*handler)(void*, void*, unsigned int), void* data)
{
    m_pPipe = ecore_pipe_add(handler, data);
    if (m_pPipe == nullptr) {
        BILLING_ERROR("ecore_pipe_add() return NULL!");
        return false;
    }
    if (fcntl(ecore_pipe_write_fd(m_pPipe), F_SETPIPE_SZ, PIPE_BYTES) < 0) {
        BILLING_ERROR("the result pipe keeps its default size, results may be lost in a burst: %s",
                      strerror(errno));
    }
    return true;
}

bool CBillingEngine::Create()
{
    CHttpConnector* poConnector = BillingInstance<CHttpConnector>();
    BILLING_RETURN_IF(NULL == poConnector, false);
    return poConnector->Create();
}

void CBillingEngine::Destroy()
{
    {
        // The pipe goes first: a result that completes from here on finds none and is dropped.
        CBillingAutoLock oLock(&g_tPipeLock);
        if (m_pPipe != nullptr) {
            ecore_pipe_del(m_pPipe);
            m_pPipe = nullptr;
        }
    }
    CHttpConnector* poConnector = BillingInstance<CHttpConnector>();
    if (poConnector == nullptr) {
        return;
    }
    poConnector->Destroy();
    BillingDeleteInstance<CHttpConnector>();
    BILLING_INFO("Destroy HttpConnector successfully.");
}

bool CBillingEngine::m_CheckNetWorkStats()
{
    bool bExists = false;
    const int iError = connection_profile_check_default_gateway(&bExists);
    if (iError != 0) {
        BILLING_ERROR("Get Network status failed: %d", iError);
        return false;
    }
    BILLING_INFO("Get Network status: %d", bExists);
    return bExists;
}

void CBillingEngine::m_Refuse(REQUEST_TYPE eType, const char* szText, void* pUser)
{
    BILLING_RETURN_INFO_T tInfo;
    tInfo.iRespResult = BILLING_RESULT_ENGINE_REFUSED;
    tInfo.strRespInfo = szText;
    tInfo.pUser = pUser;
    m_WriteRequestResultToPipe(eType, tInfo);
}

// First step of every request: creates its context and checks for a default route.
// @return null where the request ends here. Its refusal was sent then, unless memory was short.
std::unique_ptr<EngineRequestContext> CBillingEngine::m_Begin(const char* szOperation,
                                                              REQUEST_TYPE eType, void* pUser)
{
    BILLING_DEBUG_AS(szOperation, "[START] ");
    std::unique_ptr<EngineRequestContext> ptReq(new (std::nothrow) EngineRequestContext{});
    if (ptReq == nullptr) {
        BILLING_REFUSED_AS(szOperation, "NULL == ptReq");
        return nullptr;
    }
    ptReq->pOwner = this;
    ptReq->pUser = pUser;
    if (!m_CheckNetWorkStats()) {
        ptReq.reset();
        m_Refuse(eType, TEXT_NO_NETWORK, pUser);
    }
    return ptReq;
}

// Last step of every request.
// @param bSubmitted  the protocol layer's result. True: the callback owns the context, and may have
//   freed it already.
// @return bSubmitted
bool CBillingEngine::m_End(const char* szOperation, REQUEST_TYPE eType, bool bSubmitted,
                           std::unique_ptr<EngineRequestContext> ptReq)
{
    if (bSubmitted) {
        static_cast<void>(ptReq.release());
    } else {
        void* const pUser = ptReq->pUser;
        ptReq.reset();
        m_Refuse(eType, TEXT_TRY_LATER, pUser);
    }
    BILLING_DEBUG_AS(szOperation, "[END] ");
    return bSubmitted;
}

bool CBillingEngine::GetProducts(CBillingItem oItem, void* pUser)
{
    std::unique_ptr<EngineRequestContext> ptReq =
        m_Begin(__func__, REQUEST_TYPE_GET_PRODUCTS, pUser);
    if (ptReq == nullptr) {
        return false;
    }
    const bool bSubmitted = m_oHttpRequest.RequestGetProducts(oItem, m_GetProductsCB, ptReq.get());
    return m_End(__func__, REQUEST_TYPE_GET_PRODUCTS, bSubmitted, std::move(ptReq));
}

bool CBillingEngine::PurchaseHistory(CBillingItem, void* pUser)
{
    std::unique_ptr<EngineRequestContext> ptReq =
        m_Begin(__func__, REQUEST_TYPE_PURCHASE_HISTORY, pUser);
    if (ptReq == nullptr) {
        return false;
    }
    const bool bSubmitted = m_oHttpRequest.RequestPurchaseHistory(
        PAGE_SIZE, START_INDEX, INVOICE_REQUEST_TYPE, m_PurchaseHistoryCB, ptReq.get());
    return m_End(__func__, REQUEST_TYPE_PURCHASE_HISTORY, bSubmitted, std::move(ptReq));
}

bool CBillingEngine::GetAppliedTime(CBillingItem oItem, void* pUser)
{
    std::unique_ptr<EngineRequestContext> ptReq =
        m_Begin(__func__, REQUEST_TYPE_GET_APPLIED_TIME, pUser);
    if (ptReq == nullptr) {
        return false;
    }
    const bool bSubmitted =
        m_oHttpRequest.RequestGetAppliedTime(oItem, m_GetAppliedTimeCB, ptReq.get());
    return m_End(__func__, REQUEST_TYPE_GET_APPLIED_TIME, bSubmitted, std::move(ptReq));
}

bool CBillingEngine::ConfirmPurchase(CBillingItem oItem, void* pUser)
{
    std::unique_ptr<EngineRequestContext> ptReq =
        m_Begin(__func__, REQUEST_TYPE_CONFIRM_PURCHASE, pUser);
    if (ptReq == nullptr) {
        return false;
    }
    const bool bSubmitted =
        m_oHttpRequest.RequestConfirmPurchase(oItem, m_ConfirmPurchaseCB, ptReq.get());
    return m_End(__func__, REQUEST_TYPE_CONFIRM_PURCHASE, bSubmitted, std::move(ptReq));
}

bool CBillingEngine::CheckServerAvailability(std::string& strText, void* pUser)
{
    std::unique_ptr<EngineRequestContext> ptReq =
        m_Begin(__func__, REQUEST_TYPE_CHECK_SERVER_AVAILABILITY, pUser);
    if (ptReq == nullptr) {
        return false;
    }
    const bool bSubmitted = m_oHttpRequest.RequestCheckServerAvailability(
        strText, m_CheckServerAvailabilityCB, ptReq.get());
    return m_End(__func__, REQUEST_TYPE_CHECK_SERVER_AVAILABILITY, bSubmitted, std::move(ptReq));
}

void CBillingEngine::m_WriteRequestResultToPipe(REQUEST_TYPE eType, BILLING_RETURN_INFO_T& tInfo)
{
    {
        CBillingAutoLock oLock(&g_tPipeLock);
        BILLING_RETURN_IF(NULL == m_pPipe);
    }
    std::unique_ptr<BILLING_RETURN_INFO_T> pReturnInfo(new (std::nothrow) BILLING_RETURN_INFO_T);
    BILLING_RETURN_IF(NULL == pReturnInfo);
    if (tInfo.pCount != nullptr) {
        *pReturnInfo = std::move(tInfo);
    } else {
        *pReturnInfo = tInfo;
    }
    pReturnInfo->eReqType = eType;
    BILLING_INFO("pReturnInfo->pUser %p", pReturnInfo->pUser);

    CBillingAutoLock oLock(&g_tPipeLock);
    BILLING_RETURN_IF(NULL == m_pPipe);  // it may have gone since
    BILLING_RETURN_INFO_T* pMessage = pReturnInfo.get();
    if (!HasRoom(m_pPipe) || !ecore_pipe_write(m_pPipe, &pMessage, sizeof pMessage)) {
        BILLING_ERROR("the result pipe is full, a reply is lost");
        return;
    }
    static_cast<void>(pReturnInfo.release());  // owned by the reader now
}

void CBillingEngine::m_PurchaseHistoryCB(bool bSuccess, std::string& strRsp, void* pUserData)
{
    const std::unique_ptr<EngineRequestContext> ptReq = TakeContext(__func__, pUserData);
    if (ptReq == nullptr) {
        return;
    }
    if (!bSuccess) {
        BILLING_ERROR("m_PurchaseHistoryCB Http error! ");
    }
    SendResult(__func__, REQUEST_TYPE_PURCHASE_HISTORY, *ptReq, bSuccess, strRsp);
}

void CBillingEngine::m_GetProductsCB(bool bSuccess, std::string& strRsp, void* pUserData)
{
    const std::unique_ptr<EngineRequestContext> ptReq = TakeContext(__func__, pUserData);
    if (ptReq == nullptr) {
        return;
    }
    if (!bSuccess) {
        BILLING_ERROR("m_GetProductsCB Http error! ");
    }
    LogResponse(__func__, bSuccess, strRsp);
    SendResult(__func__, REQUEST_TYPE_GET_PRODUCTS, *ptReq, bSuccess, strRsp);
}

void CBillingEngine::m_GetAppliedTimeCB(bool bSuccess, std::string& strRsp, void* pUserData)
{
    const std::unique_ptr<EngineRequestContext> ptReq = TakeContext(__func__, pUserData);
    if (ptReq == nullptr) {
        return;
    }
    if (!bSuccess) {
        BILLING_ERROR("m_GetAppliedTimeCB Http error! ");
    }
    LogResponse(__func__, bSuccess, strRsp);
    SendResult(__func__, REQUEST_TYPE_GET_APPLIED_TIME, *ptReq, bSuccess, strRsp);
}

void CBillingEngine::m_ConfirmPurchaseCB(bool bSuccess, std::string& strRsp, void* pUserData)
{
    const std::unique_ptr<EngineRequestContext> ptReq = TakeContext(__func__, pUserData);
    if (ptReq == nullptr) {
        return;
    }
    if (!bSuccess) {
        BILLING_ERROR("m_ConfirmPurchaseCB Http error! ");
    }
    LogResponse(__func__, bSuccess, strRsp);
    SendResult(__func__, REQUEST_TYPE_CONFIRM_PURCHASE, *ptReq, bSuccess, strRsp);
}

void CBillingEngine::m_CheckServerAvailabilityCB(bool bSuccess, std::string& strRsp,
                                                 void* pUserData)
{
    const std::unique_ptr<EngineRequestContext> ptReq = TakeContext(__func__, pUserData);
    if (ptReq == nullptr) {
        return;
    }
    if (!bSuccess) {
        BILLING_ERROR("m_CheckServerAvailabilityCB Http error!");
    }
    BILLING_INFO("-------> bResponseCode :%d", bSuccess);
    BILLING_INFO("-------> strRsp :%s", strRsp.c_str());
    SendResult(__func__, REQUEST_TYPE_CHECK_SERVER_AVAILABILITY, *ptReq, bSuccess, strRsp);
}
