// BillingHttpRequest.cpp - the requests. Each one: begin, URL, header and body, log, send. The getters are
// called in the order in which their values appear in the request.
#include "BillingHttpRequest.h"

#include "BillingLog.h"
#include "BillingTaskBase.h"
#include "BillingUtil.h"

#include <platform/deployment.h>

#include <json/json.h>

#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

namespace {

// Room for the header and the URL of a usual request. Longer values make them grow.
constexpr std::size_t HEADER_BYTES = 256;
constexpr std::size_t URL_BYTES = 384;

/// A piece of a query: a name with its "=", and the value behind it.
struct QueryPiece {
    std::string_view szName;
    std::string strValue;
};

/// Appends the pieces, joined by "&".
void AppendQuery(std::string& strUrl, std::initializer_list<QueryPiece> pieces)
{
    std::size_t uSize = strUrl.size();
    for (const QueryPiece& tPiece : pieces) {
        uSize += tPiece.szName.size() + tPiece.strValue.size() + 1;
    }
    strUrl.reserve(uSize);
    const char* szJoin = "";
    for (const QueryPiece& tPiece : pieces) {
        strUrl.append(szJoin).append(tPiece.szName).append(tPiece.strValue);
        szJoin = "&";
    }
}

// The deprecated writer stays: the server depends on its layout, and its replacement has another one.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
std::string Styled(const Json::Value& oValue)
{
    return Json::StyledWriter().write(oValue);
}
#pragma GCC diagnostic pop

/// @return the body of both payment requests: members sorted by key, every value a text
/// @throw std::bad_alloc also where the JSON library throws an exception of its own for it
std::string PaymentBody(const CBillingItem& oItem)
try {
    const std::string strInvoiceId = oItem.strInvoiceId;
    const std::string strAppId = oItem.strAppId;
    const std::string strCustomId = oItem.strCustomId;
    Json::Value oBody;
    oBody["storeId"] = "1";
    oBody["storeProdCode"] = "1";
    oBody["appId"] = strAppId;
    oBody["invoiceId"] = strInvoiceId;
    oBody["customId"] = strCustomId;
    oBody["languageCode"] = BillingUtil::GetLanguage();
    oBody["countryCode"] = BillingUtil::GetCountryCode();
    oBody["GUID"] = BillingUtil::GetSSOGUID();
    oBody["UID"] = BillingUtil::GetSSOUID();
    return Styled(oBody);
} catch (const Json::RuntimeError&) {
    throw std::bad_alloc();
}

/// First step of every request.
/// @return null when there is no connector; that is logged
CHttpConnector* Begin(const char* szOperation)
{
    BILLING_DEBUG_AS(szOperation, "[START] ");
    CHttpConnector* const poInstance = BillingInstance<CHttpConnector>();
    if (NULL == poInstance) {
        BILLING_ERROR_AS(szOperation, "poInstance  is NULL!");
        BILLING_REFUSED_AS(szOperation, "NULL == poInstance");
    }
    return poInstance;
}

/// Last step of every request.
/// @return true when the connector has accepted it
bool Send(const char* szOperation, CHttpConnector& oConnector, _BILLING_HTTP_REQ_INFO_T& tReqInfo)
{
    const bool bStarted = tReqInfo.eMethod == HTTP_METHOD_POST ? oConnector.Post(&tReqInfo, false)
                                                               : oConnector.Get(&tReqInfo, false);
    BILLING_DEBUG_AS(szOperation, "[END] ");
    return bStarted;
}

/// The log of a purchase history request, the same for both forms.
void LogPurchaseHistory(const char* szOperation, const _BILLING_HTTP_REQ_INFO_T& tReqInfo)
{
    BILLING_INFO_AS(szOperation, "RequestPurchaseHistory start Url[%s]", tReqInfo.strUrl.c_str());
    BILLING_INFO_AS(szOperation, "RequestPurchaseHistory start Header: %s",
                    tReqInfo.strHeader.c_str());
}

}  // namespace

bool CBillingHttpRequest::Init()
{
    BILLING_DEBUG("[START] ");
    m_bSSL = true;
    // Unsigned: 0 and negative types wrap around and so choose the production host.
    const unsigned int uType = static_cast<unsigned int>(BillingUtil::GetiVantorSerType());
    const deployment_host_e eHost =
        uType - 1 <= 1 ? DEPLOYMENT_HOST_SANDBOX : DEPLOYMENT_HOST_PRODUCTION;
    const std::unique_ptr<char, decltype(&std::free)> pHost(deployment_get_host(eHost), &std::free);
    m_strServerHost = pHost ? pHost.get() : "";
    BILLING_DEBUG("[END] ");
    return true;
}

bool CBillingHttpRequest::m_GetOSBCommonHeader(std::string& strCommonHeader)
{
    strCommonHeader.reserve(HEADER_BYTES);
    strCommonHeader = "Content-Type: application/json; charset=utf-8\r\n";
    strCommonHeader += "Accept: application/json\r\n";
    strCommonHeader.append("DUID: ").append(BillingUtil::GetDUID()).append("\r\n");
    strCommonHeader.append("Atoken: ").append(BillingUtil::GetAToken()).append("\r\n");
    return true;
}

std::string CBillingHttpRequest::m_Url(const char* szPath) const
{
    std::string strUrl;
    strUrl.reserve(URL_BYTES);
    return strUrl.append("https://").append(m_strServerHost).append(szPath);
}

/// @return a record without URL, header and body; the server's host is read anew for each request
_BILLING_HTTP_REQ_INFO_T CBillingHttpRequest::m_NewRequest(HTTP_METHOD eMethod,
                                                           ResponseCallback pfnCallback,
                                                           void* pUserData)
{
    _BILLING_HTTP_REQ_INFO_T tReqInfo;
    Init();
    tReqInfo.eMethod = eMethod;
    tReqInfo.bOptionsSet = false;
    tReqInfo.bSSL = m_bSSL;
    tReqInfo.pfnCallback = pfnCallback;
    tReqInfo.pUserData = pUserData;
    return tReqInfo;
}

bool CBillingHttpRequest::RequestCheckServerAvailability(std::string&, ResponseCallback pfnCallback,
                                                         void* pUserData)
{
    CHttpConnector* const poConnector = Begin(__func__);
    if (poConnector == nullptr) {
        return false;
    }
    _BILLING_HTTP_REQ_INFO_T tReqInfo = m_NewRequest(HTTP_METHOD_GET, pfnCallback, pUserData);
    // This URL carries the UID for both ids: the server expects that here.
    tReqInfo.strUrl = m_Url("/billing/service/v2/country?");
    AppendQuery(tReqInfo.strUrl, {{"storeid=1", ""},
                                  {"storeprodcode=1", ""},
                                  {"guid=", BillingUtil::GetSSOUID()},
                                  {"uid=", BillingUtil::GetSSOUID()},
                                  {"lang=", BillingUtil::GetLanguage()}});
    const std::string strCountry = "countrycode=" + BillingUtil::GetCountryCode();
    tReqInfo.strUrl += "&" + strCountry;
    BILLING_INFO("CountryCode:[%s]", strCountry.c_str());
    m_GetOSBCommonHeader(tReqInfo.strHeader);
    BILLING_INFO(">>CheckServerAvailability Url[%s]", tReqInfo.strUrl.c_str());
    BILLING_INFO(">>CheckServerAvailability m_bSSL : %d ; Header: %s", m_bSSL,
                 tReqInfo.strHeader.c_str());
    return Send(__func__, *poConnector, tReqInfo);
}

bool CBillingHttpRequest::RequestGetProducts(CBillingItem& oItem, ResponseCallback pfnCallback,
                                             void* pUserData)
{
    CHttpConnector* const poConnector = Begin(__func__);
    if (poConnector == nullptr) {
        return false;
    }
    _BILLING_HTTP_REQ_INFO_T tReqInfo = m_NewRequest(HTTP_METHOD_GET, pfnCallback, pUserData);
    tReqInfo.strUrl = m_Url("/billing/product/v2/products?");
    AppendQuery(tReqInfo.strUrl, {{"appid=", oItem.strAppId},
                                  {"guid=", BillingUtil::GetSSOGUID()},
                                  {"uid=", BillingUtil::GetSSOUID()},
                                  {"storeid=1&storeprodcode=1", ""},
                                  {"countrycode=", BillingUtil::GetCountryCode()},
                                  {"languagecode=", BillingUtil::GetLanguage()},
                                  {"checkvalue=", oItem.strCheckValue}});
    m_GetOSBCommonHeader(tReqInfo.strHeader);
    BILLING_INFO("RequestGetProducts start Url[%s]", tReqInfo.strUrl.c_str());
    BILLING_INFO("RequestGetProducts start Header: %s", tReqInfo.strHeader.c_str());
    return Send(__func__, *poConnector, tReqInfo);
}

bool CBillingHttpRequest::RequestPurchaseHistory(std::string strPageSize, std::string strStartIdx,
                                                 std::string strReqType,
                                                 ResponseCallback pfnCallback, void* pUserData)
{
    CHttpConnector* const poConnector = Begin(__func__);
    if (poConnector == nullptr) {
        return false;
    }
    _BILLING_HTTP_REQ_INFO_T tReqInfo = m_NewRequest(HTTP_METHOD_GET, pfnCallback, pUserData);
    // The custom id is the account's, not the caller's.
    tReqInfo.strUrl = m_Url("/billing/service/v2/user/invoices?");
    AppendQuery(tReqInfo.strUrl, {{"customid=", BillingUtil::GetSSOUID()},
                                  {"countrycode=", BillingUtil::GetCountryCode()},
                                  {"languagecode=", BillingUtil::GetLanguage()},
                                  {"GUID=", BillingUtil::GetSSOGUID()},
                                  {"UID=", BillingUtil::GetSSOUID()},
                                  {"storeid=1&storeprodcode=1&pagesize=", std::move(strPageSize)},
                                  {"startidx=", std::move(strStartIdx)},
                                  {"reqtype=", std::move(strReqType)}});
    m_GetOSBCommonHeader(tReqInfo.strHeader);
    tReqInfo.strHeader += "TvYear: 15\r\n";
    tReqInfo.strHeader += "TvVersion: 1.2\r\n";
    LogPurchaseHistory(__func__, tReqInfo);
    return Send(__func__, *poConnector, tReqInfo);
}

bool CBillingHttpRequest::RequestPurchaseHistory(CBillingItem& oItem, ResponseCallback pfnCallback,
                                                 void* pUserData)
{
    CHttpConnector* const poConnector = Begin(__func__);
    if (poConnector == nullptr) {
        return false;
    }
    _BILLING_HTTP_REQ_INFO_T tReqInfo = m_NewRequest(HTTP_METHOD_GET, pfnCallback, pUserData);
    tReqInfo.strUrl = m_Url("/billing/service/v2/user/app/invoices?");
    AppendQuery(tReqInfo.strUrl, {{"storeid=1&storeprodcode=1", ""},
                                  {"GUID=", BillingUtil::GetSSOGUID()},
                                  {"UID=", BillingUtil::GetSSOUID()},
                                  {"appid=", oItem.strAppId},
                                  {"customid=", oItem.strCustomId},
                                  {"countrycode=", BillingUtil::GetCountryCode()},
                                  {"languagecode=", BillingUtil::GetLanguage()},
                                  {"itemtype=", oItem.strItemType},
                                  {"pagenumber=", oItem.strPageNumber},
                                  {"checkvalue=", oItem.strCheckValue}});
    tReqInfo.strUrl += '&';
    m_GetOSBCommonHeader(tReqInfo.strHeader);
    LogPurchaseHistory(__func__, tReqInfo);
    return Send(__func__, *poConnector, tReqInfo);
}

bool CBillingHttpRequest::RequestGetAppliedTime(CBillingItem& oItem, ResponseCallback pfnCallback,
                                                void* pUserData)
{
    CHttpConnector* const poConnector = Begin(__func__);
    if (poConnector == nullptr) {
        return false;
    }
    _BILLING_HTTP_REQ_INFO_T tReqInfo = m_NewRequest(HTTP_METHOD_POST, pfnCallback, pUserData);
    m_FillPayment(tReqInfo, "/billing/payment/v2/apply", oItem);
    BILLING_INFO("RequestGetAppliedTime start Url[%s]", tReqInfo.strUrl.c_str());
    BILLING_INFO("RequestGetAppliedTime start Header: %s", tReqInfo.strHeader.c_str());
    BILLING_INFO("RequestGetAppliedTime start Body: %s", tReqInfo.strBody.c_str());
    return Send(__func__, *poConnector, tReqInfo);
}

bool CBillingHttpRequest::RequestConfirmPurchase(CBillingItem& oItem, ResponseCallback pfnCallback,
                                                 void* pUserData)
{
    CHttpConnector* const poConnector = Begin(__func__);
    if (poConnector == nullptr) {
        return false;
    }
    _BILLING_HTTP_REQ_INFO_T tReqInfo = m_NewRequest(HTTP_METHOD_POST, pfnCallback, pUserData);
    m_FillPayment(tReqInfo, "/billing/payment/v2/confirm", oItem);
    BILLING_INFO("RequestConfirmPurchase start Url[%s]", tReqInfo.strUrl.c_str());
    BILLING_INFO("RequestConfirmPurchase start Header: %s", tReqInfo.strHeader.c_str());
    BILLING_INFO("RequestConfirmPurchase start Body: %s", tReqInfo.strBody.c_str());
    return Send(__func__, *poConnector, tReqInfo);
}

/// Sets URL, header and body of a payment request.
void CBillingHttpRequest::m_FillPayment(_BILLING_HTTP_REQ_INFO_T& tReqInfo, const char* szPath,
                                        const CBillingItem& oItem)
{
    tReqInfo.strUrl = m_Url(szPath);
    m_GetOSBCommonHeader(tReqInfo.strHeader);
    tReqInfo.strBody = PaymentBody(oItem);
}
