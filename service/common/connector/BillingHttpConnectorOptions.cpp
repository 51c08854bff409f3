// BillingHttpConnectorOptions.cpp - sets the options of a transfer from a request record.
#include "BillingHttpConnector.h"
#include "BillingLog.h"
#include "BillingUtil.h"

#include <algorithm>
#include <list>
#include <string>

using MZCurl::MZCurlEasy;

namespace {

constexpr int TIMEOUT_S = 90;
const std::string CA_BUNDLE = "/opt/down/cert/ca.pem";
// The functions below log under one name, as one operation.
constexpr const char* OPERATION = "m_SetEasyHandleOptions";

// Sets an option; on failure logs the text with the wrapper's reason and returns false.
#define SET_OR_RETURN(option, value, text)                                   \
    do {                                                                     \
        if (!oEasy.setOption(MZCurl::option, value)) {                       \
            BILLING_ERROR_AS(OPERATION, text, oEasy.getLastError().c_str()); \
            return false;                                                    \
        }                                                                    \
    } while (false)

bool SetBody(MZCurlEasy& oEasy, const std::string& strBody)
{
    SET_OR_RETURN(MZCURL_OPT_POSTFIELDS, strBody, "Set MZCurl::POSTFIELDS error = [%s]");
    SET_OR_RETURN(MZCURL_OPT_POSTFIELDSIZE, static_cast<long long>(strBody.size()),
                  "Set MZCurl::POSTFIELDSIZE error = [%s]");
    return true;
}

bool SetMethod(MZCurlEasy& oEasy, const _BILLING_HTTP_REQ_INFO_T& tReqInfo)
{
    switch (tReqInfo.eMethod) {
        case HTTP_METHOD_POST:
            SET_OR_RETURN(MZCURL_OPT_POST, 1, "Set MZCurl::POST error = [%s]");
            return SetBody(oEasy, tReqInfo.strBody);
        case HTTP_METHOD_DELETE:
            SET_OR_RETURN(MZCURL_OPT_CUSTOMREQUEST, std::string("DELETE"),
                          "Set MZCurl::POST error = [%s]");
            return SetBody(oEasy, tReqInfo.strBody);
        case HTTP_METHOD_GET:
            SET_OR_RETURN(MZCURL_OPT_HTTPGET, 1, "Set MZCurl::HTTPGET error = [%s]");
            return true;
        default:  // the record holds a plain number, which may have any value
            BILLING_ERROR_AS(OPERATION, "Http Request Method Error: %d", tReqInfo.eMethod);
            return false;
    }
}

bool SetSsl(MZCurlEasy& oEasy, bool bSSL, CHttpConnector* poConnector)
{
    const std::string strNone;
    if (!bSSL) {
        BILLING_ERROR_AS(OPERATION, "No SSL options are set");
        SET_OR_RETURN(MZCURL_OPT_SSL_VERIFYPEER, 0, "Set MZCurl::SSL_VERIFYPEER error = [%s]");
        SET_OR_RETURN(MZCURL_OPT_SSL_VERIFYHOST, 0, "Set MZCurl::SSL_VERIFYHOST error = [%s]");
        return true;
    }
    BILLING_ERROR_AS(OPERATION, "Setup SSL options");
    oEasy.setOption(MZCurl::MZCURL_OPT_RESERVED_34, 3);
    oEasy.setOption(MZCurl::MZCURL_OPT_RESERVED_1, 1);
    SET_OR_RETURN(MZCURL_OPT_CAINFO, CA_BUNDLE, "Set MZCurl::CAINFO error = [%s]");
    SET_OR_RETURN(MZCURL_OPT_SSLCERT, strNone, "Set MZCurl::SSLCERT error = [%s]");
    SET_OR_RETURN(MZCURL_OPT_SSLKEY, strNone, "Set MZCurl::SSLKEY error = [%s]");
    BILLING_INFO_AS(OPERATION, "Set MZCurl::SSL_CTX_FUNCTION %p for this %p",
                    reinterpret_cast<const void*>(CHttpConnector::sslctxfun),
                    static_cast<const void*>(poConnector));
    SET_OR_RETURN(MZCURL_OPT_SSL_CTX_FUNCTION, CHttpConnector::sslctxfun,
                  "Set MZCurl::SSL_CTX_FUNCTION error = [%s]");
    SET_OR_RETURN(MZCURL_OPT_SSL_CTX_DATA, static_cast<void*>(poConnector),
                  "Set MZCurl::SSL_CTX_DATA error = [%s]");
    SET_OR_RETURN(MZCURL_OPT_SSL_VERIFYPEER, 1, "Set MZCurl::SSL_VERIFYPEER error = [%s]");
    SET_OR_RETURN(MZCURL_OPT_SSL_VERIFYHOST, 2, "Set MZCurl::SSL_VERIFYHOST error = [%s]");
    return true;
}

std::list<std::string> HeaderList(const std::string& strHeader)
{
    std::list<std::string> lstHeader;
    const std::string strBlanks = "\r\n\t\v";
    std::string strLine;  // keeps its memory from line to line
    for (std::size_t uBegin = 0; uBegin < strHeader.size();) {
        const std::size_t uEnd = std::min(strHeader.find('\n', uBegin), strHeader.size());
        strLine.assign(strHeader, uBegin, uEnd - uBegin);
        if (strLine.find(':') != std::string::npos) {
            lstHeader.push_back(BillingUtil::StringTrim(strLine, strBlanks));
        }
        uBegin = uEnd + 1;
    }
    // A header without a value stops libcurl from sending "Expect: 100-continue" before a body.
    lstHeader.emplace_back("Expect:");
    return lstHeader;
}

}  // namespace

bool CHttpConnector::m_SetEasyHandleOptions(_BILLING_REQ_HANDLER_t* ptHandler)
{
    BILLING_RETURN_IF(NULL == ptHandler, false);
    BILLING_RETURN_IF(NULL == ptHandler->ptReqInfo, false);
    BILLING_RETURN_IF(NULL == ptHandler->pEasyHandle, false);
    _BILLING_HTTP_REQ_INFO_T& tReqInfo = *ptHandler->ptReqInfo;
    MZCurlEasy& oEasy = *ptHandler->pEasyHandle;
    const std::string strDefault;

    if (!SetMethod(oEasy, tReqInfo)) {
        return false;
    }
    SET_OR_RETURN(MZCURL_OPT_URL, tReqInfo.strUrl, "Set MZCurl::URL error = [%s]");
    SET_OR_RETURN(MZCURL_OPT_WRITEFUNCTION, WriteDataCBFunc,
                  "Set MZCurl::WRITEFUNCTION error = [%s]");
    SET_OR_RETURN(MZCURL_OPT_WRITEDATA, static_cast<void*>(&tReqInfo.strResponse),
                  "Set MZCurl::WRITEDATA error = [%s]");
    SET_OR_RETURN(MZCURL_OPT_TIMEOUT, TIMEOUT_S, "Set MZCurl::TIMEOUT error = [%s]");
    SET_OR_RETURN(MZCURL_OPT_CONNECTTIMEOUT, TIMEOUT_S, "Set MZCurl::CONNECTTIMEOUT error = [%s]");
    oEasy.setOption(MZCurl::MZCURL_OPT_PRIVATE, static_cast<void*>(ptHandler));
    oEasy.setOption(MZCurl::MZCURL_OPT_RESERVED_3, 1);
    SET_OR_RETURN(MZCURL_OPT_SSLCERTTYPE, strDefault, "Set MZCurl::SSLCERTTYPE error = [%s]");
    SET_OR_RETURN(MZCURL_OPT_SSLKEYTYPE, strDefault, "Set MZCurl::SSLKEYTYPE error = [%s]");
    if (!SetSsl(oEasy, tReqInfo.bSSL, this)) {
        return false;
    }
    SET_OR_RETURN(MZCURL_OPT_HTTPHEADER, HeaderList(tReqInfo.strHeader),
                  "Set MZCurl::HTTPHEADER error = [%s]");
    tReqInfo.bOptionsSet = true;
    BILLING_DEBUG("[END] ");
    return true;
}
