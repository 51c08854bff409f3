// protocol_layer.cpp - the connector's double, and the fixture of all request tests.
#include "protocol_layer.h"

#include "allocation_switch.h"

#include <gmock/gmock.h>

#include <atomic>

namespace {

ConnectorDouble* g_pConnector = nullptr;
std::atomic<int> g_callbacks{0};

bool Submit(const char* szOperation, const _BILLING_HTTP_REQ_INFO_T& tReqInfo, bool bSync)
{
    Note(szOperation);
    g_pConnector->submitted.push_back(
        {szOperation, tReqInfo, bSync, fake::platform().log().size()});
    return g_pConnector->bAccepts;
}

void ExpectDefaults(const _BILLING_HTTP_REQ_INFO_T& tReqInfo)
{
    const _BILLING_HTTP_REQ_INFO_T tFresh;
    EXPECT_EQ(tReqInfo.bReserved1, tFresh.bReserved1);
    EXPECT_EQ(tReqInfo.bReserved2, tFresh.bReserved2);
    EXPECT_EQ(tReqInfo.iReserved1, tFresh.iReserved1);
    EXPECT_EQ(tReqInfo.iReserved2, tFresh.iReserved2);
    EXPECT_EQ(tReqInfo.iReserved3, tFresh.iReserved3);
    EXPECT_EQ(tReqInfo.strReserved, tFresh.strReserved);
    EXPECT_EQ(tReqInfo.lstReserved, tFresh.lstReserved);
    EXPECT_EQ(tReqInfo.pReserved, tFresh.pReserved);
    EXPECT_EQ(tReqInfo.strResponse, tFresh.strResponse);
    EXPECT_EQ(tReqInfo.llReserved, tFresh.llReserved);
}

}  // namespace

CHttpConnector::CHttpConnector() : m_tMultiLock(PTHREAD_MUTEX_INITIALIZER)
{
    Note("connector");
    g_pConnector->constructedAfter.push_back(fake::platform().calls().size());
}

CHttpConnector::~CHttpConnector() = default;

void CHttpConnector::Destroy() {}

void CHttpConnector::t_Main() {}

bool CHttpConnector::Get(_BILLING_HTTP_REQ_INFO_T* ptReqInfo, bool bSync)
{
    return Submit("Get", *ptReqInfo, bSync);
}

bool CHttpConnector::Post(_BILLING_HTTP_REQ_INFO_T* ptReqInfo, bool bSync)
{
    return Submit("Post", *ptReqInfo, bSync);
}

ProtocolLayer::ProtocolLayer()
{
    g_pConnector = &m_connector;
    g_callbacks = 0;
    fake::platform().reset();
    fake::platform().config("db/comss/hwduid", "D1");
    fake::platform().config("db/comss/atoken", "T1");
    fake::platform().guid("g");
    fake::platform().loginId("u");
    for (std::string* const pText :
         {&m_item.strSpare0, &m_item.strSpare1, &m_item.strSpare2, &m_item.strSpare3,
          &m_item.strSpare4, &m_item.strSpare5, &m_item.strSpare6, &m_item.strSpare7,
          &m_item.strServerType, &m_item.strSpare8, &m_item.strSpare9, &m_item.strSpare10,
          &m_item.strSpare11, &m_item.strSpare12})
        *pText = "not read";
    m_item.strAppId = "A";
    m_item.strCustomId = "C";
    m_item.strInvoiceId = "I";
    m_item.strCheckValue = "V";
    m_item.strItemType = "Y";
    m_item.strPageNumber = "P";
}

ProtocolLayer::~ProtocolLayer()
{
    FailNothrowAllocation(0);
    BillingDeleteInstance<CHttpConnector>();
    EXPECT_EQ(g_callbacks, 0);
}

void ProtocolLayer::noCallback(bool, std::string&, void*)
{
    ++g_callbacks;
}

bool ProtocolLayer::availability()
{
    std::string strText = "not read";
    const bool bStarted = m_request.RequestCheckServerAvailability(strText, noCallback, &m_caller);
    EXPECT_EQ(strText, "not read");
    return bStarted;
}

bool ProtocolLayer::products()
{
    return m_request.RequestGetProducts(m_item, noCallback, &m_caller);
}

bool ProtocolLayer::history(const std::string& strSize, const std::string& strStart,
                            const std::string& strType)
{
    return m_request.RequestPurchaseHistory(strSize, strStart, strType, noCallback, &m_caller);
}

bool ProtocolLayer::appHistory()
{
    return m_request.RequestPurchaseHistory(m_item, noCallback, &m_caller);
}

bool ProtocolLayer::appliedTime()
{
    return m_request.RequestGetAppliedTime(m_item, noCallback, &m_caller);
}

bool ProtocolLayer::confirm()
{
    return m_request.RequestConfirmPurchase(m_item, noCallback, &m_caller);
}

std::vector<ProtocolLayer::Operation> ProtocolLayer::operations()
{
    return {{"RequestCheckServerAvailability", [this] { return availability(); }},
            {"RequestGetProducts", [this] { return products(); }},
            {"RequestPurchaseHistory", [this] { return history(); }},
            {"RequestPurchaseHistory", [this] { return appHistory(); }},
            {"RequestGetAppliedTime", [this] { return appliedTime(); }},
            {"RequestConfirmPurchase", [this] { return confirm(); }}};
}

_BILLING_HTTP_REQ_INFO_T ProtocolLayer::submitted(const std::string& strOperation, int iMethod)
{
    EXPECT_EQ(m_connector.submitted.size(), 1u);
    if (m_connector.submitted.empty())
        return {};
    const Submitted seen = m_connector.submitted.back();
    m_connector.submitted.clear();
    EXPECT_EQ(seen.strOperation, strOperation);
    EXPECT_FALSE(seen.bSync);
    EXPECT_EQ(seen.tReqInfo.eMethod, iMethod);
    EXPECT_FALSE(seen.tReqInfo.bOptionsSet);
    EXPECT_TRUE(seen.tReqInfo.bSSL);
    EXPECT_EQ(seen.tReqInfo.pfnCallback, &noCallback);
    EXPECT_EQ(seen.tReqInfo.pUserData, &m_caller);
    ExpectDefaults(seen.tReqInfo);
    return seen.tReqInfo;
}

void ProtocolLayer::expectLines(std::initializer_list<std::vector<Line>> parts)
{
    std::vector<Line> expected;
    for (const std::vector<Line>& part : parts)
        expected.insert(expected.end(), part.begin(), part.end());
    EXPECT_THAT(LoggedLines(), ::testing::ElementsAreArray(expected));
    ASSERT_EQ(m_connector.submitted.size(), 1u);
    EXPECT_EQ(m_connector.submitted[0].lines, expected.size() - 1);
}
