// BillingEngine.h - the engine: checks for a default route, starts each request, and sends every result,
// its own refusals included, to the main loop through one pipe.
#pragma once

#include "BillingHttpRequest.h"
#include "BillingTypes.h"

#include <Ecore.h>

#include <memory>
#include <string>

/// Held by CBillingSingleton<CBillingEngine>. Thread: main; the five response callbacks and
/// m_WriteRequestResultToPipe also the connector's worker.
///
/// Calling order: RegisterPipeCallback, Create, requests, Destroy.
///
/// A request returns true when it was submitted: its response callback later sends the result. After false
/// the refusal was already sent through the pipe, with one exception: without memory for the request's
/// context no result comes. pUser is the caller's token; the engine returns it in the result and does not
/// use it.
class CBillingEngine {
public:
    ~CBillingEngine();

    /// @return true when the connector's worker was started
    bool Create();
    /// Deletes the pipe, then stops and deletes the connector. Results that complete meanwhile are discarded.
    void Destroy();

    /// @param handler called by the main loop once for each result; its buffer holds one
    ///   BILLING_RETURN_INFO_T*, which it deletes
    /// @param data passed to the handler
    /// @return true when the pipe exists
    bool RegisterPipeCallback(void (*handler)(void* data, void* buffer, unsigned int nbyte),
                              void* data);

    bool GetProducts(CBillingItem oItem, void* pUser);
    bool PurchaseHistory(CBillingItem oItem, void* pUser);
    bool GetAppliedTime(CBillingItem oItem, void* pUser);
    bool ConfirmPurchase(CBillingItem oItem, void* pUser);
    bool CheckServerAvailability(std::string& strText, void* pUser);

    /// @return true when the device has a default gateway
    bool m_CheckNetWorkStats();

    /// Sends a copy of tInfo with eType to the main loop; a counted record is moved instead. Thread: any.
    void m_WriteRequestResultToPipe(REQUEST_TYPE eType, BILLING_RETURN_INFO_T& tInfo);

    /// The response callbacks. pUserData is the request's EngineRequestContext, which they free.
    /// Thread: the worker.
    static void m_PurchaseHistoryCB(bool bSuccess, std::string& strRsp, void* pUserData);
    static void m_GetProductsCB(bool bSuccess, std::string& strRsp, void* pUserData);
    static void m_GetAppliedTimeCB(bool bSuccess, std::string& strRsp, void* pUserData);
    static void m_ConfirmPurchaseCB(bool bSuccess, std::string& strRsp, void* pUserData);
    static void m_CheckServerAvailabilityCB(bool bSuccess, std::string& strRsp, void* pUserData);

private:
    friend struct EngineProbe;  // access for the tests

    std::unique_ptr<EngineRequestContext> m_Begin(const char* szOperation, REQUEST_TYPE eType,
                                                  void* pUser);
    bool m_End(const char* szOperation, REQUEST_TYPE eType, bool bSubmitted,
               std::unique_ptr<EngineRequestContext> ptReq);
    void m_Refuse(REQUEST_TYPE eType, const char* szText, void* pUser);

    CBillingItem m_oItem;  // keeps the object's layout; never set or read
    CBillingHttpRequest m_oHttpRequest;
    Ecore_Pipe* m_pPipe = nullptr;
};
