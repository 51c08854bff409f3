// connector_fixture.cpp - creates a connector on its doubles, and replaces g_main_context_invoke.
#include "connector_fixture.h"

#include <cerrno>

Invocations& Invoked()
{
    static Invocations invocations;
    return invocations;
}

Threads& Created()
{
    static Threads threads;
    return threads;
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
    Note("invoke" + Curl().locks());
    EXPECT_EQ(func, &CHttpConnector::HandleRequest);
    EXPECT_EQ(context, Invoked().pBy->context());
    EXPECT_EQ(data, &Invoked().pBy->o);
    if (Invoked().bForReal) {
        __real_g_main_context_invoke(context, func, data);
    }
}
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                          void* arg);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                          void* arg)
{
    std::size_t size = 0;
    pthread_attr_getstacksize(attr, &size);
    Note("thread of " + std::to_string(size) + " bytes");
    return Created().bFail ? EAGAIN : __real_pthread_create(thread, attr, body, arg);
}
void __real_g_main_loop_quit(GMainLoop* loop);
void __wrap_g_main_loop_quit(GMainLoop* loop)
{
    Note("quit loop");
    __real_g_main_loop_quit(loop);
}
void __real_g_main_context_unref(GMainContext* context);
void __wrap_g_main_context_unref(GMainContext* context)
{
    Note("unref context");
    EXPECT_NE(context, nullptr);
    __real_g_main_context_unref(context);
}
void __real_g_main_loop_unref(GMainLoop* loop);
void __wrap_g_main_loop_unref(GMainLoop* loop)
{
    Note("unref loop");
    EXPECT_NE(loop, nullptr);
    __real_g_main_loop_unref(loop);
}
}

namespace {

void OnResponse(bool bSuccess, std::string& strRsp, void* pUserData)
{
    Note("callback" + Curl().locks());
    Answers().push_back({bSuccess, strRsp, pUserData});
}

}  // namespace

void AConnector::SetUp()
{
    fake::platform().reset();
    Curl() = CurlDouble();
    Answers().clear();
    Invoked() = Invocations();
    Created() = Threads();
    construct();
    fake::platform().clearTimeline();
}

void AConnector::construct()
{
    m_connector.reset();
    m_connector = std::make_unique<CHttpConnector>();
    m_probe = std::make_unique<ConnectorProbe>(ConnectorProbe{*m_connector});
    Invoked().pBy = m_probe.get();
    Curl().locks = [this] { return m_probe->locks(); };
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
