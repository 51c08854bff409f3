// BillingHttpConnector.h - the connector: makes all HTTPS requests of the service on a worker thread of its
// own, and calls back once for each.
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

/// One request. The reserved fields keep the record's layout; they are copied and never read.
struct _BILLING_HTTP_REQ_INFO_T {
    bool bOptionsSet = false;  ///< set by the connector after all options of the transfer were set
    bool bSSL = false;  ///< true: verify the server against the CA bundle; false: verify nothing
    std::uint8_t bReserved1 = 1;
    std::uint8_t bReserved2 = 0;
    std::int32_t iReserved1 = 0;
    std::int32_t iReserved2 = 0;
    std::int32_t iReserved3 = 0;
    std::string strReserved;
    int eMethod = 0;  ///< HTTP_METHOD
    std::string strUrl;
    std::list<std::string> lstReserved;
    std::string strHeader;  ///< header lines, each ends with a line feed
    std::string strBody;    ///< sent with POST and DELETE
    ResponseCallback pfnCallback = nullptr;
    void* pReserved = nullptr;
    void* pUserData = nullptr;  ///< passed to the callback
    std::string strResponse;    ///< receives the body of the response
    std::int64_t llReserved = 0;
};

/// One request in flight. For an asynchronous request the connector owns both: its copy of the record, and
/// the easy handle.
struct _BILLING_REQ_HANDLER_t {
    _BILLING_HTTP_REQ_INFO_T* ptReqInfo;
    MZCurl::MZCurlEasy* pEasyHandle;
};

/// Held by CBillingSingleton<CHttpConnector>. Thread: Get and Post one (main); transfers and callbacks the
/// worker. The lock of the request lists and the lock of the multi handle are never held together.
class CHttpConnector : public CBillingThreadBase {
public:
    CHttpConnector();
    ~CHttpConnector() override;
    CHttpConnector(const CHttpConnector&) = delete;
    CHttpConnector& operator=(const CHttpConnector&) = delete;

    /// Starts the worker, waits until it takes requests, and prepares the device's credentials.
    /// @return false when the thread cannot be started, or there is no memory for the credentials. A key that
    ///   cannot be used is only logged.
    bool Create();
    /// Stops the worker. Requests in flight are neither completed nor freed; their callbacks do not run.
    void Destroy() override;

    /// Makes the request. Both functions take the method from the record.
    /// @param bSync false: copies the record, returns, and runs the callback exactly once on the worker; true:
    ///   performs the request on the calling thread and stores the body in the record, without a callback
    /// @return true when the request was submitted, or performed with success; after false no callback runs
    bool Get(_BILLING_HTTP_REQ_INFO_T* ptReqInfo, bool bSync);
    bool Post(_BILLING_HTTP_REQ_INFO_T* ptReqInfo, bool bSync);

    void t_Main() override;

    /// Performs the transfers until none is left. Scheduled on the worker.
    /// @param pUser the connector
    /// @return 0: runs once
    static int HandleRequest(void* pUser);

    /// Appends to the std::string in userdata.
    /// @return bytes taken; 0 without a string, which fails the transfer
    static unsigned int WriteDataCBFunc(char* ptr, unsigned int size, unsigned int nmemb,
                                        void* userdata);
    static unsigned int WriteHeaderDataCBFunc(char* ptr, unsigned int size, unsigned int nmemb,
                                              void* userdata);
    /// Writes to, or reads from, the FILE* in stream.
    /// @return number of whole items; 0 without a file or a buffer
    static unsigned int WriteDataToFileCBFunc(char* ptr, unsigned int size, unsigned int nmemb,
                                              void* stream);
    static unsigned int ReadDataCBFunc(char* ptr, unsigned int size, unsigned int nmemb,
                                       void* stream);

    /// Installs the device's certificate and key into a TLS context. A failure is logged, and ends the
    /// installation: a server that demands the certificate then refuses the handshake.
    /// @param sslctx the SSL_CTX
    /// @param aux the connector
    /// Thread: the one that performs the transfer.
    static void sslctxfun(void* sslctx, void* aux);
    /// The two steps of sslctxfun.
    /// @return false when the holder is empty or OpenSSL refused the object
    static bool use_clientcert(SSL_CTX* ctx, std::shared_ptr<X509> cert);
    static bool use_pkey(SSL_CTX* ctx, std::shared_ptr<RSA> key);

private:
    friend struct ConnectorProbe;  // access for the tests
    using RequestList = std::list<_BILLING_REQ_HANDLER_t*>;

    bool m_StartWorker();
    bool m_HttpAsyncRequest(_BILLING_HTTP_REQ_INFO_T* ptReqInfo);
    bool m_HttpSyncRequest(_BILLING_HTTP_REQ_INFO_T* ptReqInfo);
    bool m_InitRequest(_BILLING_REQ_HANDLER_t* ptReqHandler);
    bool m_SetEasyHandleOptions(_BILLING_REQ_HANDLER_t* ptHandler);
    bool m_AddEasyHandle(MZCurl::MZCurlEasy* pEasyHandle);
    bool m_RemoveEasyHandle(MZCurl::MZCurlEasy* pEasyHandle);
    /// Appends to the lists. Cannot fail: the worker already has the transfer.
    /// @param tEntry, tEntryBak one node each, with the same handler
    void m_PushRequest(RequestList& tEntry, RequestList& tEntryBak);
    bool m_RemoveRequest(_BILLING_REQ_HANDLER_t* ptReqHandler);
    void m_DoMultiPerform(int& iRunningHandles);
    bool m_CurlMultiSelect(int& iRunningHandles);
    void m_HandleCompletedRequest();
    void m_HandleRequestResult(_BILLING_REQ_HANDLER_t* ptReqHandler,
                               MZCurl::MZCurlMulti::MultiMsg& tMsg);

    pthread_mutex_t m_tMultiLock;  // guards adding, removing and performing on m_oMulti
    GMainContext* m_pContext;
    GMainLoop* m_pLoop;
    bool m_bIdle;  // no transfer loop is scheduled or running; guarded by m_ReqInfoLock
    MZCurl::MZCurlMulti m_oMulti;
    bool m_bMultiReady;

    // Both lists hold the same handlers; the second one is for cross-checks. They are never destroyed: what
    // is in flight when the process ends stays reachable.
    static RequestList& m_ReqInfoList;
    static RequestList& m_ReqInfoListBak;
    static pthread_mutex_t m_ReqInfoLock;
};
