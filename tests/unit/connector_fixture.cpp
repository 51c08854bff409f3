// connector_fixture.cpp - sets a connector up on its doubles, and stands in front of
// g_main_context_invoke.
#include "connector_fixture.h"

Invocations& Invoked()
{
    static Invocations invocations;
    return invocations;
}

std::vector<Answer>& Answers()
{
    static std::vector<Answer> answers;
    return answers;
}

extern "C" {
void __real_g_main_context_invoke(GMainContext* context, GSourceFunc func, gpointer data);
void __wrap_g_main_context_invoke(GMainContext* context, GSourceFunc func, gpointer data)
{
    ++Invoked().iCount;
    EXPECT_EQ(func, &CHttpConnector::HandleRequest);
    if (Invoked().bForReal) {
        __real_g_main_context_invoke(context, func, data);
    }
}
}

namespace {

void OnResponse(bool bSuccess, std::string& strRsp, void* pUserData)
{
    Answers().push_back({bSuccess, strRsp, pUserData});
}

}  // namespace

void AConnector::SetUp()
{
    fake::platform().reset();
    Curl() = CurlDouble();
    Answers().clear();
    Invoked().iCount = 0;
    Invoked().bForReal = false;
    m_connector = std::make_unique<CHttpConnector>();
    m_probe = std::make_unique<ConnectorProbe>(ConnectorProbe{*m_connector});
    fake::platform().clearLog();
    Curl().events.clear();
}

void AConnector::TearDown()
{
    while (ConnectorProbe::inFlight() > 0) {
        m_probe->removeRequest(ConnectorProbe::last());
    }
}

_BILLING_HTTP_REQ_INFO_T AConnector::aRequest(int eMethod)
{
    _BILLING_HTTP_REQ_INFO_T tInfo;
    tInfo.bSSL = true;
    tInfo.eMethod = eMethod;
    tInfo.strUrl = "https://host/path";
    tInfo.strHeader = "A: 1\r\n";
    tInfo.strBody = "body";
    tInfo.pfnCallback = OnResponse;
    tInfo.pUserData = this;
    return tInfo;
}

_BILLING_REQ_HANDLER_t* AConnector::submit(int eMethod)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest(eMethod);
    EXPECT_TRUE(m_connector->Get(&tInfo, false));
    return ConnectorProbe::last();
}

void AConnector::finish(_BILLING_REQ_HANDLER_t* ptHandler, bool bSuccess,
                        const std::string& strBody)
{
    ptHandler->ptReqInfo->strResponse = strBody;
    m_probe->result(ptHandler, {ptHandler->pEasyHandle, bSuccess, bSuccess ? 0 : 7, "reason"});
}

std::vector<std::string> AConnector::optionsOf(_BILLING_HTTP_REQ_INFO_T& tInfo, bool bExpected)
{
    MZCurl::MZCurlEasy oEasy;
    _BILLING_REQ_HANDLER_t tHandler{&tInfo, &oEasy};
    Curl().options.clear();
    EXPECT_EQ(m_probe->options(&tHandler), bExpected);
    return Curl().options;
}

std::string AConnector::headerOf(const std::string& strHeader)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    tInfo.strHeader = strHeader;
    return optionsOf(tInfo).back();
}
