// protocol_double.cpp - the doubles of CBillingHttpRequest and CHttpConnector for the engine's tests.
#include "protocol_double.h"

#include "BillingHttpConnector.h"
#include "BillingHttpRequest.h"
#include "held_locks.h"
#include "log_matchers.h"

ProtocolDouble& Protocol()
{
    static ProtocolDouble protocol;
    return protocol;
}

namespace {

bool Record(const char* szOperation, const CBillingItem& oItem, std::vector<std::string> texts,
            ResponseCallback pfnCallback, void* pUserData)
{
    EXPECT_EQ(HeldLocks(), 0u) << szOperation;
    Note(szOperation);
    auto* pContext = static_cast<EngineRequestContext*>(pUserData);
    Protocol().calls.push_back(
        {szOperation, oItem, std::move(texts), pfnCallback, pContext, *pContext});
    return Protocol().bAccepts;
}

}  // namespace

bool CBillingHttpRequest::RequestCheckServerAvailability(std::string& strText,
                                                         ResponseCallback pfnCallback,
                                                         void* pUserData)
{
    return Record("RequestCheckServerAvailability", {}, {strText}, pfnCallback, pUserData);
}

bool CBillingHttpRequest::RequestGetProducts(CBillingItem& oItem, ResponseCallback pfnCallback,
                                             void* pUserData)
{
    return Record("RequestGetProducts", oItem, {}, pfnCallback, pUserData);
}

bool CBillingHttpRequest::RequestPurchaseHistory(std::string strPageSize, std::string strStartIdx,
                                                 std::string strReqType,
                                                 ResponseCallback pfnCallback, void* pUserData)
{
    return Record("RequestPurchaseHistory", {}, {strPageSize, strStartIdx, strReqType}, pfnCallback,
                  pUserData);
}

bool CBillingHttpRequest::RequestGetAppliedTime(CBillingItem& oItem, ResponseCallback pfnCallback,
                                                void* pUserData)
{
    return Record("RequestGetAppliedTime", oItem, {}, pfnCallback, pUserData);
}

bool CBillingHttpRequest::RequestConfirmPurchase(CBillingItem& oItem, ResponseCallback pfnCallback,
                                                 void* pUserData)
{
    return Record("RequestConfirmPurchase", oItem, {}, pfnCallback, pUserData);
}

CHttpConnector::CHttpConnector() : m_tMultiLock(PTHREAD_MUTEX_INITIALIZER)
{
    Note("connector construct");
}

CHttpConnector::~CHttpConnector()
{
    Note("connector destruct");
}

bool CHttpConnector::Create()
{
    Note("connector Create");
    return Protocol().bConnectorCreates;
}

void CHttpConnector::Destroy()
{
    Note("connector Destroy");
}

void CHttpConnector::t_Main() {}
