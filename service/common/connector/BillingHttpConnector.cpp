// BillingHttpConnector.cpp - the connector's worker, and each request from its submission to its callback.
// The options of a transfer are set in BillingHttpConnectorOptions.cpp.
#include "BillingHttpConnector.h"

#include "BillingLog.h"
#include "BillingSecureStorageUtil.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <new>

using MZCurl::MZCurlEasy;
using MZCurl::MZCurlMulti;

namespace {

// Stack of the worker: a TLS handshake that the key store signs needs 20 KiB of it.
constexpr unsigned long WORKER_STACK_BYTES = 131072;
// Create waits for this source: it runs before the sources that wake the worker for requests.
constexpr int START_PRIORITY = G_PRIORITY_HIGH;

// @return null when the handler is not listed. Precondition: the caller holds the lists' lock.
_BILLING_REQ_HANDLER_t* Find(const std::list<_BILLING_REQ_HANDLER_t*>& lstHandlers,
                             const _BILLING_REQ_HANDLER_t* ptReqHandler)
{
    const auto it = std::find(lstHandlers.begin(), lstHandlers.end(), ptReqHandler);
    return it != lstHandlers.end() ? *it : nullptr;
}

// The worker's first dispatch: the multi handle then takes requests, and Create returns.
struct WorkerStart {
    MZCurlMulti& oMulti;
    CBillingSync& oStarted;

    static gboolean Dispatched(gpointer pData)
    {
        auto* ptStart = static_cast<WorkerStart*>(pData);
        ptStart->oMulti.Start();
        ptStart->oStarted.Give();  // Create returns now, and *ptStart with it is invalid
        return FALSE;
    }
};

}  // namespace

CHttpConnector::RequestList& CHttpConnector::m_ReqInfoList = *new RequestList;
CHttpConnector::RequestList& CHttpConnector::m_ReqInfoListBak = *new RequestList;
pthread_mutex_t CHttpConnector::m_ReqInfoLock = PTHREAD_MUTEX_INITIALIZER;

CHttpConnector::CHttpConnector()
    : m_tMultiLock(PTHREAD_MUTEX_INITIALIZER),
      m_pContext(nullptr),
      m_pLoop(nullptr),
      m_bIdle(true),
      m_bMultiReady(false)
{
    m_ReqInfoList.clear();
    m_ReqInfoListBak.clear();
    pthread_mutex_init(&m_ReqInfoLock, nullptr);
    pthread_mutex_init(&m_tMultiLock, nullptr);
    m_bMultiReady = m_oMulti.Initialize();
    if (!m_bMultiReady) {
        BILLING_ERROR("[MZCurl][MZCurlMulti][Initialize()] return false!!!");
    }
}

CHttpConnector::~CHttpConnector()
{
    pthread_mutex_destroy(&m_tMultiLock);
    pthread_mutex_destroy(&m_ReqInfoLock);
}

bool CHttpConnector::Create()
{
    BILLING_DEBUG("[START] ");
    BILLING_RETURN_IF(FlagCreate(), false);
    m_pContext = g_main_context_new();
    m_pLoop = g_main_loop_new(m_pContext, FALSE);
    if (!m_StartWorker()) {
        return false;
    }
    auto* poSS = BillingInstance<CBillingSecureStorageUtil>();
    BILLING_RETURN_IF(NULL == poSS, false);
    poSS->SecureStore_rsa_key();
    return true;
}

// Waits for the worker's first dispatch: a request or a quit before the loop runs would be lost, or run on
// the wrong thread.
bool CHttpConnector::m_StartWorker()
{
    CBillingSync oStarted;
    oStarted.Create();
    WorkerStart tStart{m_oMulti, oStarted};
    GSource* pSource = g_idle_source_new();
    g_source_set_priority(pSource, START_PRIORITY);
    g_source_set_callback(pSource, WorkerStart::Dispatched, &tStart, nullptr);
    g_source_attach(pSource, m_pContext);

    const bool bStarted = CBillingThreadBase::Create(WORKER_STACK_BYTES);
    if (bStarted) {
        oStarted.Take();
    } else {
        g_source_destroy(pSource);
    }
    g_source_unref(pSource);
    oStarted.Destroy();
    return bStarted;
}

void CHttpConnector::Destroy()
{
    BILLING_DEBUG("[START] ");
    // Ends the worker's wait first: a transfer may take another minute.
    m_oMulti.Stop();
    if (m_pLoop != nullptr) {
        g_main_loop_quit(m_pLoop);
    }
    if (m_pContext != nullptr) {
        g_main_context_unref(m_pContext);
        m_pContext = nullptr;
    }
    if (m_pLoop != nullptr) {
        g_main_loop_unref(m_pLoop);
        m_pLoop = nullptr;
    }
    CBillingThreadBase::Destroy();
    BILLING_DEBUG("[END] ");
}

void CHttpConnector::t_Main()
{
    g_main_loop_run(m_pLoop);
    // Frees OpenSSL's data of this thread before exit(): the thread is detached and may outlive main.
    MZCurlMulti::ThreadEnd();
}

bool CHttpConnector::Get(_BILLING_HTTP_REQ_INFO_T* ptReqInfo, bool bSync)
{
    BILLING_DEBUG("Start to get request, bSync[%d]", bSync);
    if (ptReqInfo == nullptr) {
        BILLING_ERROR("Input parameter(ptReqInfo) is NULL.");
        return false;
    }
    return bSync ? m_HttpSyncRequest(ptReqInfo) : m_HttpAsyncRequest(ptReqInfo);
}

bool CHttpConnector::Post(_BILLING_HTTP_REQ_INFO_T* ptReqInfo, bool bSync)
{
    BILLING_INFO("Get request, bSync[%d]", bSync);
    if (ptReqInfo == nullptr) {
        BILLING_ERROR("Input parameter(ptReqInfo) is NULL.");
        return false;
    }
    return bSync ? m_HttpSyncRequest(ptReqInfo) : m_HttpAsyncRequest(ptReqInfo);
}

bool CHttpConnector::m_HttpAsyncRequest(_BILLING_HTTP_REQ_INFO_T* ptReqInfo)
{
    BILLING_DEBUG("[START] ");
    if (ptReqInfo == nullptr || ptReqInfo->pfnCallback == nullptr ||
        ptReqInfo->pUserData == nullptr) {
        BILLING_ERROR("Inpurt parameter error.");
        return false;
    }
    BILLING_DEBUG("Receive a new async request.");

    std::unique_ptr<_BILLING_REQ_HANDLER_t> ptReqHandler(new (std::nothrow)
                                                             _BILLING_REQ_HANDLER_t{});
    BILLING_RETURN_IF(NULL == ptReqHandler, false);
    std::unique_ptr<_BILLING_HTTP_REQ_INFO_T> ptRequest(new (std::nothrow)
                                                            _BILLING_HTTP_REQ_INFO_T);
    BILLING_RETURN_IF(NULL == ptRequest, false);
    *ptRequest = *ptReqInfo;
    // Declared last, so freed first: the transfer reads the body from the record.
    std::unique_ptr<MZCurlEasy> pEasyHandle(new (std::nothrow) MZCurlEasy);
    if (pEasyHandle == nullptr) {
        BILLING_REFUSED("NULL ==pEasyHandle");
        return false;
    }

    ptReqHandler->pEasyHandle = pEasyHandle.get();
    ptReqHandler->ptReqInfo = ptRequest.get();
    if (!m_InitRequest(ptReqHandler.get())) {
        pEasyHandle->reset();
        BILLING_ERROR("Fail to init request.");
        return false;
    }
    // List nodes are allocated now: after the transfer is handed over nothing may fail.
    RequestList tEntry{ptReqHandler.get()};
    RequestList tEntryBak{ptReqHandler.get()};
    if (!m_AddEasyHandle(pEasyHandle.get())) {
        pEasyHandle->reset();
        return false;
    }
    // From here on the three belong to the worker. It may finish the transfer before the next line runs: the
    // multi handle then reports the transfer again until the lists contain it.
    static_cast<void>(pEasyHandle.release());
    static_cast<void>(ptRequest.release());
    static_cast<void>(ptReqHandler.release());
    m_PushRequest(tEntry, tEntryBak);
    BILLING_DEBUG("Start an async request.");
    return true;
}

bool CHttpConnector::m_HttpSyncRequest(_BILLING_HTTP_REQ_INFO_T* ptReqInfo)
{
    BILLING_DEBUG("[START] ");
    if (ptReqInfo == nullptr) {
        BILLING_ERROR("Input param is NULL.");
        return false;
    }
    BILLING_DEBUG("Start sync request.");
    MZCurlEasy oEasyHandle;
    _BILLING_REQ_HANDLER_t tReqHandler{ptReqInfo, &oEasyHandle};
    if (!m_InitRequest(&tReqHandler)) {
        oEasyHandle.reset();
        return false;
    }
    const bool bSent = oEasyHandle.send();
    const std::string strError = oEasyHandle.getLastError();
    if (bSent) {
        BILLING_INFO("Http sync request result = [%s]", strError.c_str());
    } else {
        BILLING_ERROR("[MZCurl][MZCurlEasy][send()] return false = [%s]!", strError.c_str());
    }
    oEasyHandle.reset();
    if (bSent) {
        BILLING_INFO("Http SyncRequest end!");
    }
    return bSent;
}

bool CHttpConnector::m_InitRequest(_BILLING_REQ_HANDLER_t* ptReqHandler)
{
    BILLING_DEBUG("[START] ");
    BILLING_RETURN_IF(NULL == ptReqHandler, false);
    BILLING_RETURN_IF(NULL == ptReqHandler->ptReqInfo, false);
    BILLING_RETURN_IF(NULL == ptReqHandler->pEasyHandle, false);
    if (!ptReqHandler->pEasyHandle->Initialize()) {
        BILLING_ERROR("[MZCurl][MZCurlEasy][Initialize()] return false!");
        return false;
    }
    if (!m_SetEasyHandleOptions(ptReqHandler)) {
        BILLING_ERROR("Set curl easy option error!");
        return false;
    }
    BILLING_DEBUG("Init new request end.");
    return true;
}

bool CHttpConnector::m_AddEasyHandle(MZCurlEasy* pEasyHandle)
{
    BILLING_DEBUG("[START] ");
    if (pEasyHandle == nullptr) {
        BILLING_ERROR("Input param is NULL!");
        return false;
    }
    CBillingAutoLock oLock(&m_tMultiLock);
    if (!m_bMultiReady) {
        m_bMultiReady = m_oMulti.Initialize();
        if (!m_bMultiReady) {
            BILLING_ERROR("[MZCurl][MZCurlMulti][Initialize()] return false!!!");
            return false;
        }
    }
    if (!m_oMulti.addHandle(pEasyHandle)) {
        BILLING_ERROR("[MZCurl][MZCurlMulti][addHandle()] return false!");
        return false;
    }
    BILLING_DEBUG("Add easy handle to multi successfully.");
    BILLING_DEBUG("[END] ");
    return true;
}

bool CHttpConnector::m_RemoveEasyHandle(MZCurlEasy* pEasyHandle)
{
    BILLING_RETURN_IF((NULL == pEasyHandle), false);
    CBillingAutoLock oLock(&m_tMultiLock);
    if (!m_oMulti.removeHandle(pEasyHandle)) {
        BILLING_ERROR("[MZCurl][MZCurlMulti][removeHandle()] return false!");
        return false;
    }
    return true;
}

void CHttpConnector::m_PushRequest(RequestList& tEntry, RequestList& tEntryBak)
{
    BILLING_DEBUG("[START] ");
    {
        CBillingAutoLock oLock(&m_ReqInfoLock);
        m_ReqInfoList.splice(m_ReqInfoList.end(), tEntry);
        m_ReqInfoListBak.splice(m_ReqInfoListBak.end(), tEntryBak);
        if (m_bIdle) {
            BILLING_DEBUG("New Request come!");
            g_main_context_invoke(m_pContext, HandleRequest, this);
            m_bIdle = false;
        }
    }
    BILLING_DEBUG("[END] ");
}

bool CHttpConnector::m_RemoveRequest(_BILLING_REQ_HANDLER_t* ptReqHandler)
{
    BILLING_DEBUG("[START] ");
    CBillingAutoLock oLock(&m_ReqInfoLock);
    if (Find(m_ReqInfoList, ptReqHandler) == nullptr) {
        return false;
    }
    m_ReqInfoList.remove(ptReqHandler);
    m_ReqInfoListBak.remove(ptReqHandler);
    if (m_ReqInfoList.empty()) {
        m_bIdle = true;
    }
    delete ptReqHandler->ptReqInfo;
    ptReqHandler->ptReqInfo = nullptr;
    delete ptReqHandler->pEasyHandle;
    ptReqHandler->pEasyHandle = nullptr;
    delete ptReqHandler;
    BILLING_DEBUG("[END] ");
    return true;
}

int CHttpConnector::HandleRequest(void* pUser)
{
    BILLING_DEBUG("[START] ");
    BILLING_RETURN_IF(NULL == pUser, 0);
    auto* poConnector = static_cast<CHttpConnector*>(pUser);
    int iRunningHandles = 0;
    // Called once, before the loop: it takes over waiting transfers and does no network work. fdSelect does
    // the network work, and takes over the transfers that come later.
    poConnector->m_DoMultiPerform(iRunningHandles);
    do {
        poConnector->m_CurlMultiSelect(iRunningHandles);
        poConnector->m_HandleCompletedRequest();
    } while (iRunningHandles > 0);
    BILLING_DEBUG("[END] ");
    return 0;
}

void CHttpConnector::m_DoMultiPerform(int& iRunningHandles)
{
    BILLING_DEBUG("[START] ");
    {
        CBillingAutoLock oLock(&m_tMultiLock);
        if (!m_oMulti.Perform(iRunningHandles)) {
            BILLING_ERROR("[MZCurl][MZCurlMulti][Perform()] return false, runningHandles[%d]!",
                          iRunningHandles);
        }
    }
    BILLING_DEBUG("[END] ");
}

bool CHttpConnector::m_CurlMultiSelect(int& iRunningHandles)
{
    if (!m_oMulti.fdSelect(iRunningHandles)) {
        BILLING_ERROR("[MZCurl][MZCurlMulti][fdSelect()] return false!");
        BILLING_ERROR("RunningHandles = [%d]", iRunningHandles);
        return false;
    }
    return true;
}

void CHttpConnector::m_HandleCompletedRequest()
{
    MZCurlMulti::MultiMsg tMsg;
    while (m_oMulti.InfoRead(tMsg) && tMsg.pEasyHandle != nullptr) {
        void* pHandler = nullptr;
        if (!tMsg.pEasyHandle->getInfo(MZCurl::MZCURL_INFO_PRIVATE, &pHandler)) {
            BILLING_ERROR("[MZCurl][MZCurlEasy][getInfo()] return false!");
            return;
        }
        m_HandleRequestResult(static_cast<_BILLING_REQ_HANDLER_t*>(pHandler), tMsg);
    }
}

void CHttpConnector::m_HandleRequestResult(_BILLING_REQ_HANDLER_t* ptReqHandler,
                                           MZCurlMulti::MultiMsg& tMsg)
{
    BILLING_DEBUG("[START] ");
    BILLING_RETURN_IF(ptReqHandler == NULL);
    const _BILLING_REQ_HANDLER_t* pstHandle = nullptr;
    const _BILLING_REQ_HANDLER_t* pstHandle01 = nullptr;
    {
        // Locked for the search only: the submitting thread may append at the same time.
        CBillingAutoLock oLock(&m_ReqInfoLock);
        pstHandle = Find(m_ReqInfoList, ptReqHandler);
        pstHandle01 = Find(m_ReqInfoListBak, ptReqHandler);
    }
    if (pstHandle == nullptr) {
        BILLING_ERROR("This handle has been processed before:[%x]~~~~~~~~",
                      static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(ptReqHandler)));
        return;
    }
    if (pstHandle01 != nullptr) {
        BILLING_RETURN_IF(pstHandle == NULL || pstHandle01 == NULL || pstHandle != pstHandle01);
        BILLING_RETURN_IF(pstHandle->ptReqInfo != pstHandle01->ptReqInfo);
        BILLING_RETURN_IF(pstHandle->pEasyHandle != pstHandle01->pEasyHandle);
    }
    if (ptReqHandler->pEasyHandle != nullptr) {
        m_RemoveEasyHandle(ptReqHandler->pEasyHandle);
        ptReqHandler->pEasyHandle->reset();
    }
    if (ptReqHandler->ptReqInfo != nullptr) {
        if (!tMsg.bSuccess) {
            BILLING_ERROR("MZCurl multiResult ErrorCode = %d;  ErrMsg = %s!", tMsg.iResult,
                          tMsg.strError.c_str());
        }
        if (ptReqHandler->ptReqInfo->pfnCallback != nullptr) {
            ptReqHandler->ptReqInfo->pfnCallback(tMsg.bSuccess,
                                                 ptReqHandler->ptReqInfo->strResponse,
                                                 ptReqHandler->ptReqInfo->pUserData);
        }
    }
    if (!m_RemoveRequest(ptReqHandler)) {
        BILLING_ERROR("Remove request error!");
    }
    BILLING_DEBUG("[END] ");
}

unsigned int CHttpConnector::WriteDataCBFunc(char* ptr, unsigned int size, unsigned int nmemb,
                                             void* userdata)
{
    BILLING_DEBUG("[START] ");
    const unsigned int uTaken = WriteHeaderDataCBFunc(ptr, size, nmemb, userdata);
    BILLING_DEBUG("[END] ");
    return uTaken;
}

unsigned int CHttpConnector::WriteHeaderDataCBFunc(char* ptr, unsigned int size, unsigned int nmemb,
                                                   void* userdata)
{
    if (userdata == nullptr || ptr == nullptr) {
        return 0;
    }
    static_cast<std::string*>(userdata)->append(ptr, std::size_t{size} * nmemb);
    return size * nmemb;
}

unsigned int CHttpConnector::WriteDataToFileCBFunc(char* ptr, unsigned int size, unsigned int nmemb,
                                                   void* stream)
{
    if (stream == nullptr || ptr == nullptr) {
        return 0;
    }
    return static_cast<unsigned int>(std::fwrite(ptr, size, nmemb, static_cast<FILE*>(stream)));
}

unsigned int CHttpConnector::ReadDataCBFunc(char* ptr, unsigned int size, unsigned int nmemb,
                                            void* stream)
{
    if (stream == nullptr || ptr == nullptr) {
        return 0;
    }
    return static_cast<unsigned int>(std::fread(ptr, size, nmemb, static_cast<FILE*>(stream)));
}
