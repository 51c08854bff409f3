// test_http_request.cpp - CBillingHttpRequest: each request byte for byte as it reaches the
// connector, what is asked of the platform for it and in which order, and what is logged.
#include "BillingHttpRequest.h"
#include "BillingUtil.h"
#include "allocation_switch.h"
#include "log_matchers.h"
#include "waiting.h"

#include <gmock/gmock.h>

#include <atomic>
#include <climits>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

const LinesOf Source{"BillingHttpRequest.cpp"};
const LinesOf Util{"BillingUtil.cpp"};

/// One request as it reached the connector.
struct Submitted {
    std::string strOperation;  ///< Get or Post
    _BILLING_HTTP_REQ_INFO_T tReqInfo;
    bool bSync;
    std::size_t lines;  ///< logged before it
};

/// The connector's double: keeps what it is given and answers as it is told.
struct ConnectorDouble {
    bool bAccepts = true;
    std::vector<Submitted> submitted;
    std::vector<std::size_t> constructedAfter;  ///< questions that the platform had heard by then

    bool submit(const char* szOperation, const _BILLING_HTTP_REQ_INFO_T& tReqInfo, bool bSync)
    {
        submitted.push_back({szOperation, tReqInfo, bSync, fake::platform().log().size()});
        return bAccepts;
    }
};
ConnectorDouble* g_pConnector = nullptr;

}  // namespace

CHttpConnector::CHttpConnector() : m_tMultiLock(PTHREAD_MUTEX_INITIALIZER)
{
    g_pConnector->constructedAfter.push_back(fake::platform().calls().size());
}

CHttpConnector::~CHttpConnector() = default;

void CHttpConnector::Destroy() {}

void CHttpConnector::t_Main() {}

bool CHttpConnector::Get(_BILLING_HTTP_REQ_INFO_T* ptReqInfo, bool bSync)
{
    return g_pConnector->submit("Get", *ptReqInfo, bSync);
}

bool CHttpConnector::Post(_BILLING_HTTP_REQ_INFO_T* ptReqInfo, bool bSync)
{
    return g_pConnector->submit("Post", *ptReqInfo, bSync);
}

namespace {

std::atomic<int> g_callbacks{0};
void Callback(bool, std::string&, void*)
{
    ++g_callbacks;
}

const char* const COMMON_HEADER =
    "Content-Type: application/json; charset=utf-8\r\n"
    "Accept: application/json\r\n"
    "DUID: D1\r\n"
    "Atoken: T1\r\n";
const char* const TV_HEADER = "TvYear: 15\r\nTvVersion: 1.2\r\n";
const char* const STYLED_BODY =
    "{\n"
    "   \"GUID\" : \"g\",\n"
    "   \"UID\" : \"u\",\n"
    "   \"appId\" : \"A\",\n"
    "   \"countryCode\" : \"US\",\n"
    "   \"customId\" : \"C\",\n"
    "   \"invoiceId\" : \"I\",\n"
    "   \"languageCode\" : \"en\",\n"
    "   \"storeId\" : \"1\",\n"
    "   \"storeProdCode\" : \"1\"\n"
    "}\n";

// What the platform is asked, in the words of the fake.
const char* const SERVER_TYPE = "system_info_get_value_int 126";
const char* const SANDBOX = "deployment_get_host 1";
const char* const GUID = "sso_get_guid";
const char* const UID = "sso_get_login_info";
const char* const COUNTRY = "vconf_get_str db/comss/countrycode";
const char* const LANGUAGE = "runtime_info_get_value_string 0";
const char* const DUID = "vconf_get_str db/comss/hwduid";
const char* const ATOKEN = "vconf_get_str db/comss/atoken";

// The lines of the getters that log, and of Init, on the device below.
const std::vector<Line> UID_LINES = {Util.info("GetSSOUID", "BillingUtil::GetSSOUID : u")};
const std::vector<Line> LANGUAGE_LINES = {
    Util.debug("GetLanguage", "get RUNTIME_INFO_KEY_LANGUAGE(0),value=en_US.utf8"),
    Util.info("GetLanguage", "strLanguage before convert is en_US.utf8"),
    Util.info("GetLanguage", " language after convert is [en]")};
const std::vector<Line> INIT_LINES = {
    Source.debug("Init", "[START] "),
    Util.debug("GetiVantorSerType",
               "+++++++++++++Return value of type[SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE] is "
               "[1]!+++++++++++++"),
    Source.debug("Init", "[END] ")};

std::vector<Line> Joined(std::initializer_list<std::vector<Line>> parts)
{
    std::vector<Line> lines;
    for (const std::vector<Line>& part : parts)
        lines.insert(lines.end(), part.begin(), part.end());
    return lines;
}

/// A device with DUID D1, token T1, UID u, GUID g, country US, language en, and an item with
/// something in each of its members.
class ProtocolLayer : public ::testing::Test {
protected:
    ProtocolLayer()
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
    ~ProtocolLayer() override
    {
        FailNothrowAllocation(0);
        BillingDeleteInstance<CHttpConnector>();
        EXPECT_EQ(g_callbacks, 0);
    }

    bool availability()
    {
        std::string strText = "not read";
        const bool bStarted =
            m_request.RequestCheckServerAvailability(strText, Callback, &m_caller);
        EXPECT_EQ(strText, "not read");
        return bStarted;
    }
    bool products() { return m_request.RequestGetProducts(m_item, Callback, &m_caller); }
    bool history(const std::string& strSize = "20", const std::string& strStart = "1",
                 const std::string& strType = "2")
    {
        return m_request.RequestPurchaseHistory(strSize, strStart, strType, Callback, &m_caller);
    }
    bool appHistory() { return m_request.RequestPurchaseHistory(m_item, Callback, &m_caller); }
    bool appliedTime() { return m_request.RequestGetAppliedTime(m_item, Callback, &m_caller); }
    bool confirm() { return m_request.RequestConfirmPurchase(m_item, Callback, &m_caller); }

    /// The one request that reached the connector since the last look, checked but for what is its
    /// own.
    _BILLING_HTTP_REQ_INFO_T submitted(const std::string& strOperation, int iMethod)
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
        EXPECT_EQ(seen.tReqInfo.pfnCallback, &Callback);
        EXPECT_EQ(seen.tReqInfo.pUserData, &m_caller);
        expectDefaults(seen.tReqInfo);
        return seen.tReqInfo;
    }
    _BILLING_HTTP_REQ_INFO_T got() { return submitted("Get", 1); }
    _BILLING_HTTP_REQ_INFO_T posted() { return submitted("Post", 2); }

    static void expectDefaults(const _BILLING_HTTP_REQ_INFO_T& tReqInfo)
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

    /// Everything but the last line was logged before the request was handed over.
    void expectLines(std::initializer_list<std::vector<Line>> parts)
    {
        const std::vector<Line> expected = Joined(parts);
        EXPECT_THAT(LoggedLines(), ElementsAreArray(expected));
        ASSERT_EQ(m_connector.submitted.size(), 1u);
        EXPECT_EQ(m_connector.submitted[0].lines, expected.size() - 1);
    }

    struct Operation {
        const char* szName;
        std::function<bool()> start;
    };
    std::vector<Operation> operations()
    {
        return {{"RequestCheckServerAvailability", [this] { return availability(); }},
                {"RequestGetProducts", [this] { return products(); }},
                {"RequestPurchaseHistory", [this] { return history(); }},
                {"RequestPurchaseHistory", [this] { return appHistory(); }},
                {"RequestGetAppliedTime", [this] { return appliedTime(); }},
                {"RequestConfirmPurchase", [this] { return confirm(); }}};
    }

    ConnectorDouble m_connector;
    CBillingHttpRequest m_request;
    CBillingItem m_item;
    int m_caller = 0;
};

// Host and header

TEST_F(ProtocolLayer, TakesTheSandboxForServerTypes1And2Only)
{
    const std::vector<std::pair<int, std::string>> hosts = {
        {1, "sandbox.example"},          {2, "sandbox.example"},         {0, "production.example"},
        {3, "production.example"},       {-1, "production.example"},     {4, "production.example"},
        {INT_MAX, "production.example"}, {INT_MIN, "production.example"}};
    for (const auto& [iType, strHost] : hosts) {
        fake::platform().serverType(iType);
        EXPECT_TRUE(confirm());
        EXPECT_EQ(posted().strUrl, "https://" + strHost + "/billing/payment/v2/confirm") << iType;
    }
}

TEST_F(ProtocolLayer, TakesTheSandboxWhenTheServerTypeCannotBeRead)
{
    fake::platform().serverType(std::nullopt);
    EXPECT_TRUE(confirm());
    EXPECT_EQ(posted().strUrl, "https://sandbox.example/billing/payment/v2/confirm");
}

TEST_F(ProtocolLayer, LooksAtTheServerTypeAtEveryRequestOfEachKind)
{
    for (const Operation& operation : operations()) {
        for (const int iType : {1, 0}) {
            fake::platform().serverType(iType);
            EXPECT_TRUE(operation.start());
            ASSERT_EQ(m_connector.submitted.size(), 1u);
            const std::string strHost = iType == 1 ? "sandbox.example" : "production.example";
            EXPECT_THAT(m_connector.submitted[0].tReqInfo.strUrl,
                        ::testing::StartsWith("https://" + strHost + "/billing/"))
                << operation.szName;
            m_connector.submitted.clear();
        }
    }
}

TEST_F(ProtocolLayer, SendsWithoutAHostWhenThePlatformHasNone)
{
    fake::platform().host(DEPLOYMENT_HOST_SANDBOX, std::nullopt);
    EXPECT_TRUE(confirm());
    EXPECT_EQ(posted().strUrl, "https:///billing/payment/v2/confirm");
    fake::platform().host(DEPLOYMENT_HOST_SANDBOX, "found.example:8443");
    EXPECT_TRUE(confirm());
    EXPECT_EQ(posted().strUrl, "https://found.example:8443/billing/payment/v2/confirm");
}

TEST_F(ProtocolLayer, InitialisesWithTwoLinesAroundTheServerType)
{
    EXPECT_TRUE(m_request.Init());
    EXPECT_THAT(LoggedLines(), ElementsAreArray(INIT_LINES));
    EXPECT_THAT(fake::platform().calls(), ElementsAre(SERVER_TYPE, SANDBOX));
}

TEST_F(ProtocolLayer, WritesTheFourCommonHeaderLines)
{
    std::string strHeader = "whatever it held before";
    EXPECT_TRUE(m_request.m_GetOSBCommonHeader(strHeader));
    EXPECT_EQ(strHeader, COMMON_HEADER);
    EXPECT_THAT(fake::platform().calls(), ElementsAre(DUID, ATOKEN));
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(ProtocolLayer, WritesAHeaderLineWithoutAValueWhenThereIsNone)
{
    fake::platform().config("db/comss/hwduid", std::nullopt);
    fake::platform().config("db/comss/atoken", std::nullopt);
    std::string strHeader;
    EXPECT_TRUE(m_request.m_GetOSBCommonHeader(strHeader));
    EXPECT_EQ(strHeader,
              "Content-Type: application/json; charset=utf-8\r\nAccept: application/json\r\n"
              "DUID: \r\nAtoken: \r\n");
}

TEST_F(ProtocolLayer, WritesHeaderValuesAsTheyAre)
{
    fake::platform().config("db/comss/hwduid", "  D 1: \"x\"  ");
    fake::platform().config("db/comss/atoken", "T%0d=&");
    EXPECT_TRUE(confirm());
    EXPECT_EQ(posted().strHeader,
              "Content-Type: application/json; charset=utf-8\r\nAccept: application/json\r\n"
              "DUID:   D 1: \"x\"  \r\nAtoken: T%0d=&\r\n");
}

// The procedure

TEST_F(ProtocolLayer, MakesTheConnectorBeforeItAsksThePlatformAndOnlyOnce)
{
    for (const Operation& operation : operations())
        EXPECT_TRUE(operation.start()) << operation.szName;
    EXPECT_THAT(m_connector.constructedAfter, ElementsAre(0u));
    EXPECT_EQ(m_connector.submitted.size(), 6u);
}

TEST_F(ProtocolLayer, GetsTheConnectorUnderItsLock)
{
    std::atomic<bool> bReturned{false};
    std::thread caller;
    {
        const CBillingAutoLock lock(&CBillingSingleton<CHttpConnector>::m_tSingletonLock);
        caller = std::thread([&] {
            confirm();
            bReturned = true;
        });
        EXPECT_TRUE(NotYet([&] { return bReturned.load(); }));
        EXPECT_THAT(fake::platform().calls(), IsEmpty());
    }
    caller.join();
    EXPECT_EQ(m_connector.submitted.size(), 1u);
}

TEST_F(ProtocolLayer, RefusesWithoutAConnectorAndAsksNothing)
{
    for (const Operation& operation : operations()) {
        fake::platform().clearLog();
        FailNothrowAllocation(1);
        EXPECT_FALSE(operation.start());
        EXPECT_THAT(LoggedLines(),
                    ElementsAre(Source.debug(operation.szName, "[START] "),
                                Source.error(operation.szName, "poInstance  is NULL!"),
                                Source.refused(operation.szName, "NULL == poInstance")));
    }
    EXPECT_THAT(fake::platform().calls(), IsEmpty());
    EXPECT_THAT(m_connector.submitted, IsEmpty());
    EXPECT_THAT(m_connector.constructedAfter, IsEmpty());
}

TEST_F(ProtocolLayer, PassesTheConnectorsRefusalOnAfterItsLastLine)
{
    m_connector.bAccepts = false;
    for (const Operation& operation : operations()) {
        fake::platform().clearLog();
        EXPECT_FALSE(operation.start());
        const auto lines = LoggedLines();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back(), Source.debug(operation.szName, "[END] "));
        EXPECT_THAT(lines,
                    ::testing::Each(::testing::Field(&Line::ePriority, ::testing::Ne(DLOG_ERROR))));
    }
    EXPECT_EQ(m_connector.submitted.size(), 6u);
}

TEST_F(ProtocolLayer, LeavesTheCallersItemAsItIs)
{
    const CBillingItem before = m_item;
    for (const Operation& operation : operations())
        operation.start();
    EXPECT_EQ(m_item.strAppId, before.strAppId);
    EXPECT_EQ(m_item.strCustomId, before.strCustomId);
    EXPECT_EQ(m_item.strInvoiceId, before.strInvoiceId);
    EXPECT_EQ(m_item.strCheckValue, before.strCheckValue);
    EXPECT_EQ(m_item.strItemType, before.strItemType);
    EXPECT_EQ(m_item.strPageNumber, before.strPageNumber);
}

// Server availability

TEST_F(ProtocolLayer, AsksForTheAvailabilityWithTheUidInBothPlaces)
{
    EXPECT_TRUE(availability());
    EXPECT_THAT(fake::platform().calls(),
                ElementsAre(SERVER_TYPE, SANDBOX, UID, UID, LANGUAGE, COUNTRY, DUID, ATOKEN));
    const auto tReqInfo = got();
    EXPECT_EQ(tReqInfo.strUrl,
              "https://sandbox.example/billing/service/v2/country?storeid=1&storeprodcode=1&"
              "guid=u&uid=u&lang=en&countrycode=US");
    EXPECT_EQ(tReqInfo.strHeader, COMMON_HEADER);
    EXPECT_EQ(tReqInfo.strBody, "");
}

TEST_F(ProtocolLayer, DoesNotReadTheTextOfTheAvailability)
{
    for (std::string strText : {"", "storeid=9&x", "other"}) {
        EXPECT_TRUE(m_request.RequestCheckServerAvailability(strText, Callback, &m_caller));
        const auto tReqInfo = got();
        EXPECT_EQ(tReqInfo.strUrl,
                  "https://sandbox.example/billing/service/v2/country?storeid=1&storeprodcode=1&"
                  "guid=u&uid=u&lang=en&countrycode=US");
        EXPECT_EQ(tReqInfo.strHeader, COMMON_HEADER);
    }
}

TEST_F(ProtocolLayer, LogsTheAvailability)
{
    const char* const szName = "RequestCheckServerAvailability";
    EXPECT_TRUE(availability());
    expectLines({{Source.debug(szName, "[START] ")},
                 INIT_LINES,
                 UID_LINES,
                 UID_LINES,
                 LANGUAGE_LINES,
                 {Source.info(szName, "CountryCode:[countrycode=US]"),
                  Source.info(szName,
                              ">>CheckServerAvailability Url[https://sandbox.example"
                              "/billing/service/v2/country?storeid=1&storeprodcode=1&"
                              "guid=u&uid=u&lang=en&countrycode=US]"),
                  Source.info(szName, std::string(">>CheckServerAvailability m_bSSL : 1 ; "
                                                  "Header: ") +
                                          COMMON_HEADER),
                  Source.debug(szName, "[END] ")}});
}

// Products

TEST_F(ProtocolLayer, AsksForTheProducts)
{
    EXPECT_TRUE(products());
    EXPECT_THAT(fake::platform().calls(),
                ElementsAre(SERVER_TYPE, SANDBOX, GUID, UID, COUNTRY, LANGUAGE, DUID, ATOKEN));
    const auto tReqInfo = got();
    EXPECT_EQ(tReqInfo.strUrl,
              "https://sandbox.example/billing/product/v2/products?appid=A&guid=g&uid=u&"
              "storeid=1&storeprodcode=1&countrycode=US&languagecode=en&checkvalue=V");
    EXPECT_EQ(tReqInfo.strHeader, COMMON_HEADER);
    EXPECT_EQ(tReqInfo.strBody, "");
}

TEST_F(ProtocolLayer, LogsTheProducts)
{
    const char* const szName = "RequestGetProducts";
    EXPECT_TRUE(products());
    expectLines(
        {{Source.debug(szName, "[START] ")},
         INIT_LINES,
         UID_LINES,
         LANGUAGE_LINES,
         {Source.info(szName, "RequestGetProducts start Url[" +
                                  m_connector.submitted.at(0).tReqInfo.strUrl + "]"),
          Source.info(szName, std::string("RequestGetProducts start Header: ") + COMMON_HEADER),
          Source.debug(szName, "[END] ")}});
}

TEST_F(ProtocolLayer, AsksForTheProductsAlsoWithNothingToSay)
{
    m_item = CBillingItem();
    fake::platform().guid(std::nullopt);
    fake::platform().loginId(std::nullopt);
    fake::platform().config("db/comss/countrycode", std::nullopt);
    EXPECT_TRUE(products());
    EXPECT_EQ(got().strUrl,
              "https://sandbox.example/billing/product/v2/products?appid=&guid=&uid=&"
              "storeid=1&storeprodcode=1&countrycode=&languagecode=en&checkvalue=");
}

TEST_F(ProtocolLayer, PutsValuesIntoTheUrlAsTheyAre)
{
    m_item.strAppId = "a&b=c d%20\"\xc3\xa9";
    m_item.strCheckValue = "x==&y";
    fake::platform().guid("g & = g");
    EXPECT_TRUE(products());
    EXPECT_EQ(got().strUrl,
              "https://sandbox.example/billing/product/v2/products?appid=a&b=c d%20\"\xc3\xa9&"
              "guid=g & = g&uid=u&storeid=1&storeprodcode=1&countrycode=US&languagecode=en&"
              "checkvalue=x==&y");
}

TEST_F(ProtocolLayer, PutsAValueOfAMebibyteIntoTheUrl)
{
    m_item.strCheckValue.assign(1 << 20, 'v');
    EXPECT_TRUE(products());
    EXPECT_EQ(got().strUrl,
              "https://sandbox.example/billing/product/v2/products?appid=A&guid=g&"
              "uid=u&storeid=1&storeprodcode=1&countrycode=US&languagecode=en&"
              "checkvalue=" +
                  std::string(1 << 20, 'v'));
}

// Purchase history

TEST_F(ProtocolLayer, AsksForThePurchaseHistoryWithTheAccountsOwnId)
{
    fake::platform().config("db/comss/countrycode", "DE");
    fake::platform().language("de_DE.utf8");
    EXPECT_TRUE(history());
    EXPECT_THAT(fake::platform().calls(),
                ElementsAre(SERVER_TYPE, SANDBOX, UID, COUNTRY, LANGUAGE, GUID, UID, DUID, ATOKEN));
    const auto tReqInfo = got();
    EXPECT_EQ(tReqInfo.strUrl,
              "https://sandbox.example/billing/service/v2/user/invoices?customid=u&"
              "countrycode=DE&languagecode=de&GUID=g&UID=u&storeid=1&storeprodcode=1&"
              "pagesize=20&startidx=1&reqtype=2");
    EXPECT_EQ(tReqInfo.strBody, "");
}

TEST_F(ProtocolLayer, AddsTwoHeaderLinesToThePurchaseHistory)
{
    EXPECT_TRUE(history());
    EXPECT_EQ(got().strHeader, std::string(COMMON_HEADER) + TV_HEADER);
}

TEST_F(ProtocolLayer, AddsThemToNoOtherRequest)
{
    for (const Operation& operation : operations())
        EXPECT_TRUE(operation.start());
    int iWith = 0;
    for (const Submitted& seen : m_connector.submitted) {
        if (seen.tReqInfo.strHeader != COMMON_HEADER)
            ++iWith;
    }
    EXPECT_EQ(iWith, 1);
}

TEST_F(ProtocolLayer, PutsThePagingTextsInAsTheyAreEmptyOnesToo)
{
    const std::string strUrl =
        "https://sandbox.example/billing/service/v2/user/invoices?customid=u&countrycode=US&"
        "languagecode=en&GUID=g&UID=u&storeid=1&storeprodcode=1&";
    EXPECT_TRUE(history("", "", ""));
    EXPECT_EQ(got().strUrl, strUrl + "pagesize=&startidx=&reqtype=");
    EXPECT_TRUE(history("a b", "&", "="));
    EXPECT_EQ(got().strUrl, strUrl + "pagesize=a b&startidx=&&reqtype==");
}

TEST_F(ProtocolLayer, LogsThePurchaseHistory)
{
    const char* const szName = "RequestPurchaseHistory";
    EXPECT_TRUE(history());
    expectLines({{Source.debug(szName, "[START] ")},
                 INIT_LINES,
                 UID_LINES,
                 LANGUAGE_LINES,
                 UID_LINES,
                 {Source.info(szName, "RequestPurchaseHistory start Url[" +
                                          m_connector.submitted.at(0).tReqInfo.strUrl + "]"),
                  Source.info(szName, std::string("RequestPurchaseHistory start Header: ") +
                                          COMMON_HEADER + TV_HEADER),
                  Source.debug(szName, "[END] ")}});
}

TEST_F(ProtocolLayer, AsksForThePurchaseHistoryOfOneApplicationAndEndsInAnAmpersand)
{
    EXPECT_TRUE(appHistory());
    EXPECT_THAT(fake::platform().calls(),
                ElementsAre(SERVER_TYPE, SANDBOX, GUID, UID, COUNTRY, LANGUAGE, DUID, ATOKEN));
    const auto tReqInfo = got();
    EXPECT_EQ(tReqInfo.strUrl,
              "https://sandbox.example/billing/service/v2/user/app/invoices?storeid=1&"
              "storeprodcode=1&GUID=g&UID=u&appid=A&customid=C&countrycode=US&languagecode=en&"
              "itemtype=Y&pagenumber=P&checkvalue=V&");
    EXPECT_EQ(tReqInfo.strHeader, COMMON_HEADER);
    EXPECT_EQ(tReqInfo.strBody, "");
}

TEST_F(ProtocolLayer, EndsInAnAmpersandAlsoWithAnEmptyItem)
{
    m_item = CBillingItem();
    EXPECT_TRUE(appHistory());
    EXPECT_EQ(got().strUrl,
              "https://sandbox.example/billing/service/v2/user/app/invoices?storeid=1&"
              "storeprodcode=1&GUID=g&UID=u&appid=&customid=&countrycode=US&languagecode=en&"
              "itemtype=&pagenumber=&checkvalue=&");
}

TEST_F(ProtocolLayer, LogsThePurchaseHistoryOfOneApplicationInTheSameWords)
{
    const char* const szName = "RequestPurchaseHistory";
    EXPECT_TRUE(appHistory());
    expectLines(
        {{Source.debug(szName, "[START] ")},
         INIT_LINES,
         UID_LINES,
         LANGUAGE_LINES,
         {Source.info(szName, "RequestPurchaseHistory start Url[" +
                                  m_connector.submitted.at(0).tReqInfo.strUrl + "]"),
          Source.info(szName, std::string("RequestPurchaseHistory start Header: ") + COMMON_HEADER),
          Source.debug(szName, "[END] ")}});
}

// Applied time and confirmation

TEST_F(ProtocolLayer, PostsTheSameBodyForTheAppliedTimeAndForTheConfirmation)
{
    const auto questions =
        ElementsAre(SERVER_TYPE, SANDBOX, DUID, ATOKEN, LANGUAGE, COUNTRY, GUID, UID);
    EXPECT_TRUE(appliedTime());
    EXPECT_THAT(fake::platform().calls(), questions);
    const auto tApply = posted();
    EXPECT_EQ(tApply.strUrl, "https://sandbox.example/billing/payment/v2/apply");
    EXPECT_EQ(tApply.strHeader, COMMON_HEADER);
    EXPECT_EQ(tApply.strBody, STYLED_BODY);

    fake::platform().clearCalls();
    EXPECT_TRUE(confirm());
    EXPECT_THAT(fake::platform().calls(), questions);
    const auto tConfirm = posted();
    EXPECT_EQ(tConfirm.strUrl, "https://sandbox.example/billing/payment/v2/confirm");
    EXPECT_EQ(tConfirm.strHeader, COMMON_HEADER);
    EXPECT_EQ(tConfirm.strBody, STYLED_BODY);
}

TEST_F(ProtocolLayer, LogsUrlHeaderAndBodyOfAPost)
{
    const std::vector<std::pair<std::string, std::string>> posts = {
        {"RequestGetAppliedTime", "apply"}, {"RequestConfirmPurchase", "confirm"}};
    for (const auto& [strName, strPath] : posts) {
        fake::platform().clearLog();
        m_connector.submitted.clear();
        EXPECT_TRUE(strPath == "apply" ? appliedTime() : confirm());
        expectLines({{Source.debug(strName, "[START] ")},
                     INIT_LINES,
                     LANGUAGE_LINES,
                     UID_LINES,
                     {Source.info(strName, strName +
                                               " start Url[https://sandbox.example"
                                               "/billing/payment/v2/" +
                                               strPath + "]"),
                      Source.info(strName, strName + " start Header: " + COMMON_HEADER),
                      Source.info(strName, strName + " start Body: " + STYLED_BODY),
                      Source.debug(strName, "[END] ")}});
    }
}

TEST_F(ProtocolLayer, PostsEmptyTextsForWhatIsMissing)
{
    m_item = CBillingItem();
    fake::platform().guid(std::nullopt);
    fake::platform().loginId(std::nullopt);
    fake::platform().config("db/comss/countrycode", std::nullopt);
    fake::platform().language(std::nullopt);
    EXPECT_TRUE(confirm());
    EXPECT_EQ(posted().strBody,
              "{\n"
              "   \"GUID\" : \"\",\n"
              "   \"UID\" : \"\",\n"
              "   \"appId\" : \"\",\n"
              "   \"countryCode\" : \"\",\n"
              "   \"customId\" : \"\",\n"
              "   \"invoiceId\" : \"\",\n"
              "   \"languageCode\" : \"ko\",\n"
              "   \"storeId\" : \"1\",\n"
              "   \"storeProdCode\" : \"1\"\n"
              "}\n");
}

/// The body with other texts in it, as the writer puts them.
std::string Body(const std::string& strAppId, const std::string& strCustomId,
                 const std::string& strInvoiceId)
{
    return "{\n   \"GUID\" : \"g\",\n   \"UID\" : \"u\",\n   \"appId\" : \"" + strAppId +
           "\",\n   \"countryCode\" : \"US\",\n   \"customId\" : \"" + strCustomId +
           "\",\n   \"invoiceId\" : \"" + strInvoiceId +
           "\",\n   \"languageCode\" : \"en\",\n   \"storeId\" : \"1\",\n"
           "   \"storeProdCode\" : \"1\"\n}\n";
}

TEST_F(ProtocolLayer, LeavesEscapingToTheJsonWriter)
{
    m_item.strInvoiceId = "\"quoted\" and \\back\\slashed\\";
    m_item.strAppId = "line\nfeed\ttab\rreturn\bback\fform /slash";
    m_item.strCustomId = "{\"x\": [1, 2]}";
    EXPECT_TRUE(confirm());
    EXPECT_EQ(posted().strBody,
              Body("line\\nfeed\\ttab\\rreturn\\bback\\fform /slash", "{\\\"x\\\": [1, 2]}",
                   "\\\"quoted\\\" and \\\\back\\\\slashed\\\\"));
}

TEST_F(ProtocolLayer, WritesWhatIsNotAsciiAsTheJsonWriterDoes)
{
    m_item.strInvoiceId = "\xc3\xa9\xe2\x82\xac";  // é €
    m_item.strAppId = "\xed\x95\x9c";              // 한
    m_item.strCustomId = "\xf0\x9f\x93\xba";       // a television, beyond 16 bits
    EXPECT_TRUE(confirm());
    EXPECT_EQ(posted().strBody, Body("\\ud55c", "\\ud83d\\udcfa", "\\u00e9\\u20ac"));
}

TEST_F(ProtocolLayer, PostsTextsOfAMebibyte)
{
    const std::string strLong(1 << 20, 'i');
    std::string strQuotes;
    for (int i = 0; i < 1 << 19; ++i)
        strQuotes += "\\\"";
    m_item.strInvoiceId = strLong;
    m_item.strCustomId.assign(1 << 19, '"');
    EXPECT_TRUE(appliedTime());
    const std::string strBody = posted().strBody;
    EXPECT_TRUE(strBody == Body("A", strQuotes, strLong)) << strBody.size();
}

}  // namespace
