// http_request_get_test.cpp - the GET requests byte for byte at the connector, the platform calls for them in
// their order, and the log lines.
#include "protocol_layer.h"

#include <gmock/gmock.h>

#include <optional>
#include <string>

using ::testing::ElementsAre;

namespace {

const char* const TV_HEADER = "TvYear: 15\r\nTvVersion: 1.2\r\n";

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
        EXPECT_TRUE(m_request.RequestCheckServerAvailability(strText, noCallback, &m_caller));
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

}  // namespace
