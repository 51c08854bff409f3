// BillingHttpConnector.h - the connector: carries every HTTPS exchange of the service on its own
// worker thread and calls back once for each.
#pragma once

#include "BillingOpenSsl.h"
#include "BillingTaskBase.h"
#include "BillingTypes.h"

#include <platform/MZCurl.h>

#include <glib.h>
#include <pthread.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>

/// Values of _BILLING_HTTP_REQ_INFO_T::eMethod; any other one is refused.
enum HTTP_METHOD : int {
    HTTP_METHOD_GET = 1,
    HTTP_METHOD_POST = 2,
    HTTP_METHOD_DELETE = 4,
};

/// One request. The reserved fields keep the record's shape; they are copied and never read.
struct _BILLING_HTTP_REQ_INFO_T {
    bool bOptionsSet =
        false;          ///< set by the connector once every option of the transfer is in place
    bool bSSL = false;  ///< verify the server against the CA bundle; false: verify nothing
    std::uint8_t bReserved1 = 1;
    std::uint8_t bReserved2 = 0;
    std::int32_t iReserved1 = 0;
    std::int32_t iReserved2 = 0;
    std::int32_t iReserved3 = 0;
    std::string strReserved;
    int eMethod = 0;  ///< HTTP_METHOD
    std::string strUrl;
    std::list<std::string> lstReserved;
    std::string strHeader;  ///< header lines, each ended by a line feed
    std::string strBody;    ///< sent with POST and DELETE
    ResponseCallback pfnCallback = nullptr;
    void* pReserved = nullptr;
    void* pUserData = nullptr;  ///< handed back to the callback
    std::string strResponse;    ///< receives the body of the response
    std::int64_t llReserved = 0;
};

/// One request in flight. Asynchronous: the connector owns the record (its own copy) and the easy
/// handle.
struct _BILLING_REQ_HANDLER_t {
    _BILLING_HTTP_REQ_INFO_T* ptReqInfo;
    MZCurl::MZCurlEasy* pEasyHandle;
};

/// Held by CBillingSingleton<CHttpConnector>. Get and Post come from one thread (main); transfers
/// and callbacks run on the worker. The request lists' lock and the multi handle's lock are never
/// held together.
class CHttpConnector : public CBillingThreadBase {
public:
    CHttpConnector();
    ~CHttpConnector() override;
    CHttpConnector(const CHttpConnector&) = delete;
    CHttpConnector& operator=(const CHttpConnector&) = delete;

    /// Starts the worker, returns once it takes requests, and has the device's credentials
    /// prepared. @return false when the thread could not be started, or there is no memory for the
    /// credentials; a key that cannot be used is logged and fails nothing here
    bool Create();
    /// Stops the worker. Requests in flight are neither completed nor freed; their callbacks never
    /// run.
    void Destroy() override;

    /// Submits a request (bSync false: the record is copied, the callback runs later on the worker,
    /// exactly once) or performs it on the calling thread (bSync true: no callback, the body is in
    /// the record). Both take the method from the record. @return true when submitted, or performed
    /// with success; false means that no callback will come
    bool Get(_BILLING_HTTP_REQ_INFO_T* ptReqInfo, bool bSync);
    bool Post(_BILLING_HTTP_REQ_INFO_T* ptReqInfo, bool bSync);

    void t_Main() override;

    /// Runs the transfers until none is left; scheduled on the worker. @param pUser the connector
    /// @return 0: only once
    static int HandleRequest(void* pUser);

    /// Appends to the std::string in userdata. @return the bytes taken; 0, which fails the
    /// transfer, without a string
    static unsigned int WriteDataCBFunc(char* ptr, unsigned int size, unsigned int nmemb,
                                        void* userdata);
    static unsigned int WriteHeaderDataCBFunc(char* ptr, unsigned int size, unsigned int nmemb,
                                              void* userdata);
    /// Writes to, or reads from, the FILE* in stream. @return whole items done; 0 without a file or
    /// a buffer
    static unsigned int WriteDataToFileCBFunc(char* ptr, unsigned int size, unsigned int nmemb,
                                              void* stream);
    static unsigned int ReadDataCBFunc(char* ptr, unsigned int size, unsigned int nmemb,
                                       void* stream);

    /// Installs the device's certificate and key into a TLS context. What fails is logged, and
    /// leaves the context as it is: a server that demands the certificate then refuses. @param
    /// sslctx the SSL_CTX @param aux the connector. Thread: the one that performs the transfer
    static void sslctxfun(void* sslctx, void* aux);
    /// The two steps of it. @return false when the holder is empty or the context refused
    static bool use_clientcert(SSL_CTX* ctx, std::shared_ptr<X509> cert);
    static bool use_pkey(SSL_CTX* ctx, std::shared_ptr<RSA> key);

private:
    friend struct ConnectorProbe;  // the tests' view of the steps below
    using RequestList = std::list<_BILLING_REQ_HANDLER_t*>;

    bool m_StartWorker();
    bool m_HttpAsyncRequest(_BILLING_HTTP_REQ_INFO_T* ptReqInfo);
    bool m_HttpSyncRequest(_BILLING_HTTP_REQ_INFO_T* ptReqInfo);
    bool m_InitRequest(_BILLING_REQ_HANDLER_t* ptReqHandler);
    bool m_SetEasyHandleOptions(_BILLING_REQ_HANDLER_t* ptHandler);
    bool m_AddEasyHandle(MZCurl::MZCurlEasy* pEasyHandle);
    bool m_RemoveEasyHandle(MZCurl::MZCurlEasy* pEasyHandle);
    /// Both hold one handler. Cannot fail: its transfer is with the worker already.
    void m_PushRequest(RequestList& tEntry, RequestList& tEntryBak);
    bool m_RemoveRequest(_BILLING_REQ_HANDLER_t* ptReqHandler);
    void m_DoMultiPerform(int& iRunningHandles);
    bool m_CurlMultiSelect(int& iRunningHandles);
    void m_HandleCompletedRequest();
    void m_HandleRequestResult(_BILLING_REQ_HANDLER_t* ptReqHandler,
                               MZCurl::MZCurlMulti::MultiMsg& tMsg);

    pthread_mutex_t m_tMultiLock;  // adding, removing and performing on m_oMulti
    GMainContext* m_pContext;
    GMainLoop* m_pLoop;
    bool m_bIdle;  // no transfer loop is scheduled or running; guarded by m_ReqInfoLock
    MZCurl::MZCurlMulti m_oMulti;
    bool m_bMultiReady;

    // Both lists hold the same handlers; the second is a cross-check. They are never destroyed:
    // what is in flight at the end of the process stays reachable.
    static RequestList& m_ReqInfoList;
    static RequestList& m_ReqInfoListBak;
    static pthread_mutex_t m_ReqInfoLock;
};
