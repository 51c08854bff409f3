// http_request_post_test.cpp - the POST requests with their JSON bodies, byte for byte, with platform calls
// and log lines.
#include "protocol_layer.h"

#include <gmock/gmock.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

using ::testing::ElementsAre;

namespace {

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

/// The body with other texts, as the JSON writer prints them.
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
