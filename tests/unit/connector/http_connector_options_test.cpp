// http_connector_options_test.cpp - the options that CHttpConnector sets for a transfer, and its write and
// read functions.
#include "connector_fixture.h"

#include <gmock/gmock.h>

#include <cstdio>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;

namespace {

// --- options ---

TEST_F(AConnector, SetsTheOptionsOfATlsGetInOrder)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    std::vector<std::size_t> optionsBefore;
    fake::platform().onLog(
        [&](const fake::LogRecord&) { optionsBefore.push_back(Curl().options.size()); });

    EXPECT_THAT(optionsOf(tInfo),
                ElementsAre("17 1", "50 'https://host/path'", "78 callback", "86 pointer", "30 90",
                            "33 90", "92 pointer", "3 1", "67 ''", "69 ''", "34 3", "1 1",
                            "63 '/opt/down/cert/ca.pem'", "66 ''", "68 ''", "83 context callback",
                            "90 pointer", "39 1", "38 2", "75 'A: 1''Expect:'"));
    EXPECT_EQ(Curl().pfnWrite, &CHttpConnector::WriteDataCBFunc);
    EXPECT_EQ(Curl().pfnSslContext, &CHttpConnector::sslctxfun);
    EXPECT_EQ(Curl().pSslContextData, m_connector.get());
    EXPECT_TRUE(tInfo.bOptionsSet);
    char szAddresses[128];
    std::snprintf(szAddresses, sizeof szAddresses, "Set MZCurl::SSL_CTX_FUNCTION %p for this %p",
                  reinterpret_cast<const void*>(CHttpConnector::sslctxfun),
                  static_cast<const void*>(m_connector.get()));
    EXPECT_THAT(LoggedLines(), ElementsAre(OPTIONS.error(SET_OPTIONS, "Setup SSL options"),
                                           OPTIONS.info(SET_OPTIONS, szAddresses),
                                           OPTIONS.debug(SET_OPTIONS, "[END] ")));
    EXPECT_THAT(optionsBefore, ElementsAre(10u, 15u, 20u)) << "each line stands in its place";
}

TEST_F(AConnector, VerifiesNothingWithoutTls)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    tInfo.bSSL = false;
    std::vector<std::size_t> optionsBefore;
    fake::platform().onLog(
        [&](const fake::LogRecord&) { optionsBefore.push_back(Curl().options.size()); });

    EXPECT_THAT(
        optionsOf(tInfo),
        ElementsAre("17 1", "50 'https://host/path'", "78 callback", "86 pointer", "30 90", "33 90",
                    "92 pointer", "3 1", "67 ''", "69 ''", "39 0", "38 0", "75 'A: 1''Expect:'"));
    EXPECT_THAT(LoggedLines(), Contains(OPTIONS.error(SET_OPTIONS, "No SSL options are set")));
    EXPECT_THAT(optionsBefore, ElementsAre(10u, 13u));
}

TEST_F(AConnector, PostsTheBodyWithItsLength)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest(HTTP_METHOD_POST);
    tInfo.strBody = std::string("a\0b", 3);
    const auto options = optionsOf(tInfo);

    EXPECT_EQ(options[0], "16 1");
    EXPECT_EQ(options[1], "59 '" + std::string("a\0b", 3) + "'");
    EXPECT_EQ(options[2], "44 3ll");
}

TEST_F(AConnector, DeletesWithABodyLikeAPost)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest(HTTP_METHOD_DELETE);
    const auto options = optionsOf(tInfo);

    EXPECT_EQ(options[0], "48 'DELETE'");
    EXPECT_EQ(options[1], "59 'body'");
    EXPECT_EQ(options[2], "44 4ll");
}

TEST_F(AConnector, SendsNoBodyWithAGet)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest(HTTP_METHOD_GET);

    EXPECT_THAT(optionsOf(tInfo), Not(Contains("59 'body'")));
}

struct Refusal {
    int iOption;
    int eMethod;
    bool bSSL;
    const char* szText;
};
class ARefusedOption : public AConnector, public ::testing::WithParamInterface<Refusal> {};
INSTANTIATE_TEST_SUITE_P(
    AConnector, ARefusedOption,
    ::testing::Values(Refusal{16, 2, true, "Set MZCurl::POST error = [no]"},
                      Refusal{59, 2, true, "Set MZCurl::POSTFIELDS error = [no]"},
                      Refusal{44, 2, true, "Set MZCurl::POSTFIELDSIZE error = [no]"},
                      Refusal{48, 4, true, "Set MZCurl::POST error = [no]"},
                      Refusal{59, 4, true, "Set MZCurl::POSTFIELDS error = [no]"},
                      Refusal{44, 4, true, "Set MZCurl::POSTFIELDSIZE error = [no]"},
                      Refusal{17, 1, true, "Set MZCurl::HTTPGET error = [no]"},
                      Refusal{50, 1, true, "Set MZCurl::URL error = [no]"},
                      Refusal{78, 1, true, "Set MZCurl::WRITEFUNCTION error = [no]"},
                      Refusal{86, 1, true, "Set MZCurl::WRITEDATA error = [no]"},
                      Refusal{30, 1, true, "Set MZCurl::TIMEOUT error = [no]"},
                      Refusal{33, 1, true, "Set MZCurl::CONNECTTIMEOUT error = [no]"},
                      Refusal{67, 1, false, "Set MZCurl::SSLCERTTYPE error = [no]"},
                      Refusal{69, 1, false, "Set MZCurl::SSLKEYTYPE error = [no]"},
                      Refusal{39, 1, false, "Set MZCurl::SSL_VERIFYPEER error = [no]"},
                      Refusal{38, 1, false, "Set MZCurl::SSL_VERIFYHOST error = [no]"},
                      Refusal{63, 1, true, "Set MZCurl::CAINFO error = [no]"},
                      Refusal{66, 1, true, "Set MZCurl::SSLCERT error = [no]"},
                      Refusal{68, 1, true, "Set MZCurl::SSLKEY error = [no]"},
                      Refusal{83, 1, true, "Set MZCurl::SSL_CTX_FUNCTION error = [no]"},
                      Refusal{90, 1, true, "Set MZCurl::SSL_CTX_DATA error = [no]"},
                      Refusal{39, 1, true, "Set MZCurl::SSL_VERIFYPEER error = [no]"},
                      Refusal{38, 1, true, "Set MZCurl::SSL_VERIFYHOST error = [no]"},
                      Refusal{75, 1, true, "Set MZCurl::HTTPHEADER error = [no]"}));

TEST_P(ARefusedOption, EndsTheSetUpAtOnceWithItsOwnText)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest(GetParam().eMethod);
    tInfo.bSSL = GetParam().bSSL;
    Curl().iRefusedOption = GetParam().iOption;

    const auto options = optionsOf(tInfo, false);

    EXPECT_EQ(options.back().substr(0, 2), std::to_string(GetParam().iOption));
    EXPECT_EQ(LoggedLines().back(), OPTIONS.error(SET_OPTIONS, GetParam().szText));
    EXPECT_FALSE(tInfo.bOptionsSet);
}

class AnUncheckedOption : public AConnector, public ::testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(AConnector, AnUncheckedOption, ::testing::Values(92, 3, 34, 1));

TEST_P(AnUncheckedOption, DoesNotEndTheSetUpWhenItIsRefused)
{
    _BILLING_HTTP_REQ_INFO_T tInfo = aRequest();
    Curl().iRefusedOption = GetParam();

    optionsOf(tInfo, true);

    EXPECT_TRUE(tInfo.bOptionsSet);
}

TEST_F(AConnector, MakesTheHeaderListOfLinesWithAColon)
{
    EXPECT_EQ(headerOf("A: 1\r\nB 2\n\tC: 3\n"), "75 'A: 1''C: 3''Expect:'");
}

TEST_F(AConnector, TrimsHeaderLinesOfCrLfAndTabsButNotOfBlanks)
{
    EXPECT_EQ(headerOf("\v\t D: 4 \t\r\nE: 5"), "75 ' D: 4 ''E: 5''Expect:'");
}

TEST_F(AConnector, SendsAtLeastTheEmptyExpect)
{
    EXPECT_EQ(headerOf(""), "75 'Expect:'");
}

// --- write functions ---

TEST_F(AConnector, AppendsEachChunkOfTheBody)
{
    std::string strBody = "a";
    char chunk[] = "bcd";

    EXPECT_EQ(CHttpConnector::WriteDataCBFunc(chunk, 1, 3, &strBody), 3u);
    EXPECT_EQ(CHttpConnector::WriteHeaderDataCBFunc(chunk, 3, 1, &strBody), 3u);

    EXPECT_EQ(strBody, "abcdbcd");
    EXPECT_THAT(LoggedLines(), ElementsAre(CONNECTOR.debug("WriteDataCBFunc", "[START] "),
                                           CONNECTOR.debug("WriteDataCBFunc", "[END] ")));
}

TEST_F(AConnector, TakesNothingWithoutABufferOrATarget)
{
    std::string strBody;
    char chunk[] = "bcd";

    EXPECT_EQ(CHttpConnector::WriteDataCBFunc(nullptr, 1, 3, &strBody), 0u);
    EXPECT_EQ(CHttpConnector::WriteDataCBFunc(chunk, 1, 3, nullptr), 0u);
    EXPECT_EQ(CHttpConnector::WriteHeaderDataCBFunc(nullptr, 1, 3, &strBody), 0u);
    EXPECT_EQ(CHttpConnector::WriteHeaderDataCBFunc(chunk, 1, 3, nullptr), 0u);
    EXPECT_EQ(CHttpConnector::WriteDataToFileCBFunc(chunk, 1, 3, nullptr), 0u);
    EXPECT_EQ(CHttpConnector::WriteDataToFileCBFunc(nullptr, 1, 3, stderr), 0u);
    EXPECT_EQ(CHttpConnector::ReadDataCBFunc(chunk, 1, 3, nullptr), 0u);
    EXPECT_EQ(CHttpConnector::ReadDataCBFunc(nullptr, 1, 3, stdin), 0u);
}

TEST_F(AConnector, WritesToAndReadsFromAFile)
{
    struct Close {
        void operator()(FILE* open) const { std::fclose(open); }
    };
    const std::unique_ptr<FILE, Close> file(std::tmpfile());
    ASSERT_NE(file, nullptr);
    char out[] = "abcdef";
    EXPECT_EQ(CHttpConnector::WriteDataToFileCBFunc(out, 2, 3, file.get()), 3u);
    std::rewind(file.get());
    char in[7] = {};

    EXPECT_EQ(CHttpConnector::ReadDataCBFunc(in, 4, 2, file.get()), 1u) << "whole items only";
    EXPECT_EQ(std::string(in, 4), "abcd");
}

}  // namespace
