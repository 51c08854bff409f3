// BillingHttpRequest.h - the protocol layer: turns a request of the engine into one HTTP request to
// the billing server.
#pragma once

#include "BillingHttpConnector.h"
#include "BillingTypes.h"

#include <string>

/// Lives inside the engine. Thread: main.
///
/// Every request returns true when the connector accepted it: the callback will then run once, with
/// pUserData. False means that nothing was started and that the callback will not run. No value is
/// checked or encoded on its way.
class CBillingHttpRequest {
public:
    /// Reads the device's server type and picks the host; every request does so first. @return true
    bool Init();

    /// Replaces strCommonHeader by the header lines that every request carries. @return true
    bool m_GetOSBCommonHeader(std::string& strCommonHeader);

    /// @param strText not read
    bool RequestCheckServerAvailability(std::string& strText, ResponseCallback pfnCallback,
                                        void* pUserData);
    bool RequestGetProducts(CBillingItem& oItem, ResponseCallback pfnCallback, void* pUserData);
    /// The invoices of the signed-in account. @param strPageSize, strStartIdx, strReqType decimal
    /// numbers
    bool RequestPurchaseHistory(std::string strPageSize, std::string strStartIdx,
                                std::string strReqType, ResponseCallback pfnCallback,
                                void* pUserData);
    /// The invoices of one application. No method of the service asks for them.
    bool RequestPurchaseHistory(CBillingItem& oItem, ResponseCallback pfnCallback, void* pUserData);
    bool RequestGetAppliedTime(CBillingItem& oItem, ResponseCallback pfnCallback, void* pUserData);
    bool RequestConfirmPurchase(CBillingItem& oItem, ResponseCallback pfnCallback, void* pUserData);

private:
    _BILLING_HTTP_REQ_INFO_T m_NewRequest(HTTP_METHOD eMethod, ResponseCallback pfnCallback,
                                          void* pUserData);
    std::string m_Url(const char* szPath) const;
    void m_FillPayment(_BILLING_HTTP_REQ_INFO_T& tReqInfo, const char* szPath,
                       const CBillingItem& oItem);

    bool m_bSSL = true;           // verify the server; copied into each request
    std::string m_strServerHost;  // without scheme or path
};
