// BillingEngine.h - the engine: checks for a way out, starts each request, and sends every result,
// also its own refusals, back to the main loop through one pipe.
#pragma once

#include "BillingHttpRequest.h"
#include "BillingTypes.h"

#include <Ecore.h>

#include <memory>
#include <string>

/// Held by CBillingSingleton<CBillingEngine>. Everything runs on the main thread but the five
/// response callbacks and m_WriteRequestResultToPipe, which the connector's worker runs too.
///
/// Calling order: RegisterPipeCallback, Create, requests, Destroy.
///
/// A request returns true when it was submitted: its response callback then brings the result. When
/// it returns false the refusal is already on its way through the pipe, but for one case: without
/// memory for the request's context nothing will come. pUser is the caller's token; it comes back
/// in the result and is never looked at.
class CBillingEngine {
public:
    ~CBillingEngine();

    /// @return true when the connector's worker was started
    bool Create();
    /// Deletes the pipe, then stops and deletes the connector. Results that complete meanwhile are
    /// dropped.
    void Destroy();

    /// @param handler run by the main loop once a result; its buffer holds one
    ///   BILLING_RETURN_INFO_T*, which it deletes
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

    /// Sends a copy of tInfo to the main loop, marked with eType. A record that is counted is moved
    /// instead. Thread: any.
    void m_WriteRequestResultToPipe(REQUEST_TYPE eType, BILLING_RETURN_INFO_T& tInfo);

    /// The response callbacks; pUserData is the request's EngineRequestContext, which they free.
    /// Thread: the worker.
    static void m_PurchaseHistoryCB(bool bSuccess, std::string& strRsp, void* pUserData);
    static void m_GetProductsCB(bool bSuccess, std::string& strRsp, void* pUserData);
    static void m_GetAppliedTimeCB(bool bSuccess, std::string& strRsp, void* pUserData);
    static void m_ConfirmPurchaseCB(bool bSuccess, std::string& strRsp, void* pUserData);
    static void m_CheckServerAvailabilityCB(bool bSuccess, std::string& strRsp, void* pUserData);

private:
    friend struct EngineProbe;  // the tests' view

    std::unique_ptr<EngineRequestContext> m_Begin(const char* szOperation, REQUEST_TYPE eType,
                                                  void* pUser);
    bool m_End(const char* szOperation, REQUEST_TYPE eType, bool bSubmitted,
               std::unique_ptr<EngineRequestContext> ptReq);
    void m_Refuse(REQUEST_TYPE eType, const char* szText, void* pUser);

    CBillingItem m_oItem;  // keeps its place in the record; neither filled nor read
    CBillingHttpRequest m_oHttpRequest;
    Ecore_Pipe* m_pPipe = nullptr;
};
