// BillingHttpRequest.h - the protocol layer: makes one HTTP request to the billing server of each request of
// the engine.
#pragma once

#include "BillingHttpConnector.h"
#include "BillingTypes.h"

#include <string>

/// A member of the engine. Thread: main.
///
/// Every request returns true when the connector has accepted it: the callback then runs once, with
/// pUserData. After false nothing was started and the callback does not run. Values are neither checked nor
/// encoded.
class CBillingHttpRequest {
public:
    /// Reads the device's server type and chooses the host. Called by every request.
    /// @return true
    bool Init();

    /// Makes the header lines that every request carries.
    /// @param[out] strCommonHeader is replaced
    /// @return true
    bool m_GetOSBCommonHeader(std::string& strCommonHeader);

    /// @param strText not used
    bool RequestCheckServerAvailability(std::string& strText, ResponseCallback pfnCallback,
                                        void* pUserData);
    bool RequestGetProducts(CBillingItem& oItem, ResponseCallback pfnCallback, void* pUserData);
    /// Requests the invoices of the signed-in account.
    /// @param strPageSize, strStartIdx, strReqType decimal numbers
    bool RequestPurchaseHistory(std::string strPageSize, std::string strStartIdx,
                                std::string strReqType, ResponseCallback pfnCallback,
                                void* pUserData);
    /// Requests the invoices of one application. No method of the service uses it.
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
