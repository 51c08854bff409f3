// connector_fixture.h - fixture of the CHttpConnector tests: a connector on a double of the curl wrapper,
// access to the connector's steps, and a double of g_main_context_invoke, by which code reaches the worker.
#pragma once

#include "BillingHttpConnector.h"
#include "held_locks.h"
#include "log_matchers.h"
#include "mzcurl_double.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

/// Gives access to the steps of the worker, so that a test can call them in any order.
struct ConnectorProbe {
    CHttpConnector& o;

    bool idle() const { return o.m_bIdle; }
    GMainContext* context() const { return o.m_pContext; }
    /// The connector's locks that the calling thread holds, in brackets.
    std::string locks() const
    {
        return std::string(Holds(o.m_tMultiLock) ? " (multi)" : "") +
               (Holds(CHttpConnector::m_ReqInfoLock) ? " (lists)" : "");
    }
    static std::size_t inFlight() { return CHttpConnector::m_ReqInfoList.size(); }
    static std::size_t inFlightBak() { return CHttpConnector::m_ReqInfoListBak.size(); }
    static void addAgain(_BILLING_REQ_HANDLER_t* pt)
    {
        CHttpConnector::m_ReqInfoList.push_back(pt);
        CHttpConnector::m_ReqInfoListBak.push_back(pt);
    }
    static void forget(_BILLING_REQ_HANDLER_t* pt)
    {
        CHttpConnector::m_ReqInfoList.remove(pt);
        CHttpConnector::m_ReqInfoListBak.remove(pt);
    }
    static std::size_t timesListsLocked() { return TimesLocked(CHttpConnector::m_ReqInfoLock); }
    /// @return true if the lists' lock is usable and free
    static bool listsCanBeLocked()
    {
        const bool bLocked = pthread_mutex_trylock(&CHttpConnector::m_ReqInfoLock) == 0;
        return bLocked && pthread_mutex_unlock(&CHttpConnector::m_ReqInfoLock) == 0;
    }
    static void dropFromBak() { CHttpConnector::m_ReqInfoListBak.clear(); }
    static _BILLING_REQ_HANDLER_t* last() { return CHttpConnector::m_ReqInfoList.back(); }
    bool init(_BILLING_REQ_HANDLER_t* pt) { return o.m_InitRequest(pt); }
    bool options(_BILLING_REQ_HANDLER_t* pt) { return o.m_SetEasyHandleOptions(pt); }
    bool add(MZCurl::MZCurlEasy* p) { return o.m_AddEasyHandle(p); }
    bool remove(MZCurl::MZCurlEasy* p) { return o.m_RemoveEasyHandle(p); }
    bool removeRequest(_BILLING_REQ_HANDLER_t* pt) { return o.m_RemoveRequest(pt); }
    void result(_BILLING_REQ_HANDLER_t* pt, MZCurl::MZCurlMulti::MultiMsg tMsg)
    {
        o.m_HandleRequestResult(pt, tMsg);
    }
    void completed() { o.m_HandleCompletedRequest(); }
    void perform(int& i) { o.m_DoMultiPerform(i); }
    bool select(int& i) { return o.m_CurlMultiSelect(i); }
};

inline const LinesOf CONNECTOR{"BillingHttpConnector.cpp"};
inline const LinesOf OPTIONS{"BillingHttpConnectorOptions.cpp"};
inline const std::string SET_OPTIONS = "m_SetEasyHandleOptions";

/// Functions that the connector gave to g_main_context_invoke. They run only when bForReal is set.
struct Invocations {
    bool bForReal = false;
    int iCount = 0;
    const ConnectorProbe* pBy = nullptr;  ///< the only connector that may call it
};
Invocations& Invoked();

/// Result of the worker's creation.
struct Threads {
    bool bFail = false;
};
Threads& Created();

struct Answer {
    bool bSuccess;
    std::string strBody;
    void* pUser;
};
/// Arguments that the callback of aRequest() has received, in order.
std::vector<Answer>& Answers();

class AConnector : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// Makes the connector; replaces the present one.
    void construct();

    _BILLING_HTTP_REQ_INFO_T aRequest(int eMethod = HTTP_METHOD_GET);

    /// Submits aRequest().
    /// @return its handler
    _BILLING_REQ_HANDLER_t* submit(int eMethod = HTTP_METHOD_GET);

    /// Ends the transfer and tells the worker.
    void finish(_BILLING_REQ_HANDLER_t* ptHandler, bool bSuccess, const std::string& strBody);

    /// The options of one record, as the wrapper's double received them.
    std::vector<std::string> optionsOf(_BILLING_HTTP_REQ_INFO_T& tInfo, bool bExpected = true);

    /// The last option of a record with this header.
    std::string headerOf(const std::string& strHeader);

    std::unique_ptr<CHttpConnector> m_connector;
    std::unique_ptr<ConnectorProbe> m_probe;
};
