// BillingHttpRequest.h - the billing server's protocol: host, URL, header and body of each request.
#pragma once

#include "BillingHttpConnector.h"
#include "BillingTypes.h"

#include <string>

/// Starts requests; their answers go from the connector straight to the callback. Thread: main.
///
/// A request returns true when the connector took it: the callback then comes once, on the
/// connector's worker. False: it never comes, and pUserData is still the caller's. Values go into
/// URL, header and body as the platform and the caller give them, empty ones too; only the JSON
/// writer escapes.
class CBillingHttpRequest {
public:
    /// Reads the device's server type and chooses the host by it; every request does so first.
    /// @return true
    bool Init();
    /// Replaces the text by the header lines of every request, each ended by CR LF. @return true
    bool m_GetOSBCommonHeader(std::string& strCommonHeader);

    /// Asks whether the billing service is there for the device's country. @param text not read
    bool RequestCheckServerAvailability(std::string& text, ResponseCallback callback,
                                        void* pUserData);
    /// Asks what the application sells. Reads strAppId and strCheckValue.
    bool RequestGetProducts(CBillingItem& item, ResponseCallback callback, void* pUserData);
    /// Asks for one page of the account's invoices.
    bool RequestPurchaseHistory(std::string pagesize, std::string startidx, std::string reqtype,
                                ResponseCallback callback, void* pUserData);
    /// Asks for one page of the account's invoices of one application. Reads strAppId, strCustomId,
    /// strItemType, strPageNumber and strCheckValue. Part of the interface, used by no method of
    /// the service.
    bool RequestPurchaseHistory(CBillingItem& item, ResponseCallback callback, void* pUserData);
    /// Asks when a purchase was applied, or confirms one. Both read strInvoiceId, strAppId and
    /// strCustomId.
    bool RequestGetAppliedTime(CBillingItem& item, ResponseCallback callback, void* pUserData);
    bool RequestConfirmPurchase(CBillingItem& item, ResponseCallback callback, void* pUserData);

private:
    template <typename Fill>
    bool m_Start(const char* szOperation, HTTP_METHOD eMethod, ResponseCallback callback,
                 void* pUserData, Fill fill);
    std::string m_Url(const char* szPath) const;
    void m_FillPayment(_BILLING_HTTP_REQ_INFO_T& tReqInfo, const char* szPath,
                       const CBillingItem& item);

    bool m_bSSL = false;
    std::string m_strServerHost;
};
