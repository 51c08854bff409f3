// easy_test.cpp - one transfer on the calling thread: options, information, error codes.
#include "test_server.h"
#include "transfers.h"

#include <platform/MZCurl.h>

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

namespace {

using namespace MZCurl;
using test::Connection;
using test::Request;
using test::TestServer;
using test::Transfer;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Lines = std::list<std::string>;

TEST(AnEasyHandle, IsInitialisedOnce)
{
    MZCurlEasy easy;
    EXPECT_TRUE(easy.Initialize());
    EXPECT_FALSE(easy.Initialize());
}

TEST(AnEasyHandle, RefusesEverythingBeforeItIsInitialised)
{
    MZCurlEasy easy;
    void* pointer = &easy;
    EXPECT_THAT(easy.getLastError(), IsEmpty());
    EXPECT_FALSE(easy.setOption(MZCURL_OPT_POST, 1));
    EXPECT_THAT(easy.getLastError(), HasSubstr("not initialised"));
    EXPECT_FALSE(easy.setOption(MZCURL_OPT_PRIVATE, pointer));
    EXPECT_FALSE(easy.getInfo(MZCURL_INFO_PRIVATE, &pointer));
    EXPECT_FALSE(easy.send());
    EXPECT_EQ(easy.getLastError(), "The handle is not initialised, or a multi handle has it");
    easy.reset();
    EXPECT_THAT(easy.getLastError(), Not(IsEmpty())) << "there is nothing to reset";
    EXPECT_EQ(pointer, &easy);
}

class AnInitialisedEasyHandle : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(easy.Initialize()); }

    template <class Value>
    void refuses(MZCURL_OPTION_TYPE option, const Value& value, const char* reason)
    {
        EXPECT_FALSE(easy.setOption(option, value)) << option;
        EXPECT_THAT(easy.getLastError(), HasSubstr(reason)) << option;
    }

    MZCurlEasy easy;
};

TEST_F(AnInitialisedEasyHandle, TakesEveryOptionWithItsTypeOfValue)
{
    int target = 0;
    for (const auto option : {MZCURL_OPT_RESERVED_1, MZCURL_OPT_RESERVED_3, MZCURL_OPT_POST,
                              MZCURL_OPT_HTTPGET, MZCURL_OPT_TIMEOUT, MZCURL_OPT_CONNECTTIMEOUT,
                              MZCURL_OPT_RESERVED_34, MZCURL_OPT_SSL_VERIFYPEER}) {
        EXPECT_TRUE(easy.setOption(option, 1)) << option;
        EXPECT_TRUE(easy.setOption(option, 1L)) << option;
    }
    EXPECT_TRUE(easy.setOption(MZCURL_OPT_SSL_VERIFYHOST, 2));
    EXPECT_TRUE(easy.setOption(MZCURL_OPT_POSTFIELDSIZE, 5000000000LL));
    for (const auto option :
         {MZCURL_OPT_CUSTOMREQUEST, MZCURL_OPT_URL, MZCURL_OPT_POSTFIELDS, MZCURL_OPT_CAINFO,
          MZCURL_OPT_SSLCERT, MZCURL_OPT_SSLCERTTYPE, MZCURL_OPT_SSLKEY, MZCURL_OPT_SSLKEYTYPE}) {
        EXPECT_TRUE(easy.setOption(option, std::string("text"))) << option;
    }
    EXPECT_TRUE(easy.setOption(MZCURL_OPT_HTTPHEADER, Lines{"A: 1", "B: 2"}));
    EXPECT_TRUE(easy.setOption(MZCURL_OPT_WRITEFUNCTION, test::appendBody));
    EXPECT_TRUE(easy.setOption(MZCURL_OPT_WRITEDATA, static_cast<void*>(&target)));
    EXPECT_TRUE(easy.setOption(MZCURL_OPT_PRIVATE, static_cast<void*>(&target)));
    EXPECT_THAT(easy.getLastError(), IsEmpty());
}

TEST_F(AnInitialisedEasyHandle, RefusesAValueOfTheWrongType)
{
    const char* const reason = "another type";
    refuses(MZCURL_OPT_URL, 1, reason);
    refuses(MZCURL_OPT_HTTPHEADER, std::string("A: 1"), reason);
    refuses(MZCURL_OPT_POST, std::string("1"), reason);
    refuses(MZCURL_OPT_RESERVED_34, std::string("3"), reason);
    refuses(MZCURL_OPT_URL, Lines{"http://localhost"}, reason);
    refuses(MZCURL_OPT_WRITEDATA, &test::appendBody, reason);
    refuses(MZCURL_OPT_WRITEFUNCTION, static_cast<void*>(&easy), reason);
    refuses(MZCURL_OPT_PRIVATE, 1, reason);
}

TEST_F(AnInitialisedEasyHandle, ForgetsItsErrorByAReset)
{
    refuses(MZCURL_OPT_URL, 1, "");
    EXPECT_THAT(easy.getLastError(), Not(IsEmpty()));
    easy.reset();
    EXPECT_THAT(easy.getLastError(), IsEmpty());
}

TEST_F(AnInitialisedEasyHandle, RefusesOptionsThatItDoesNotKnow)
{
    for (const int option : {0, 2, 40, 84, 89, 91, 127}) {
        refuses(static_cast<MZCURL_OPTION_TYPE>(option), 1, "no such option");
    }
}

TEST_F(AnInitialisedEasyHandle, PassesOnWhatLibcurlSaysOfAValue)
{
    refuses(MZCURL_OPT_TIMEOUT, -1, curl_easy_strerror(CURLE_BAD_FUNCTION_ARGUMENT));
    refuses(MZCURL_OPT_POSTFIELDSIZE, -2LL, curl_easy_strerror(CURLE_BAD_FUNCTION_ARGUMENT));
    // The longest time, in seconds, whose milliseconds fit into libcurl's int.
    refuses(MZCURL_OPT_CONNECTTIMEOUT, 2147484, curl_easy_strerror(CURLE_BAD_FUNCTION_ARGUMENT));
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> plain(curl_easy_init(),
                                                                    curl_easy_cleanup);
    EXPECT_TRUE(easy.setOption(MZCURL_OPT_CONNECTTIMEOUT, 2147483));
    EXPECT_TRUE(easy.setOption(MZCURL_OPT_TIMEOUT, 0)) << "no limit";
    EXPECT_EQ(curl_easy_setopt(plain.get(), CURLOPT_CONNECTTIMEOUT, 2147483L), CURLE_OK);
    EXPECT_NE(curl_easy_setopt(plain.get(), CURLOPT_CONNECTTIMEOUT, 2147484L), CURLE_OK);
}

TEST_F(AnInitialisedEasyHandle, RefusesAHeaderThatHoldsALineEndOrANul)
{
    for (const std::string& bad : {std::string("A: 1\r\nB: 2"), std::string("A: 1\n"),
                                   std::string("A: 1\r"), std::string("A: 1\0B", 6)}) {
        refuses(MZCURL_OPT_HTTPHEADER, Lines{"First: 1", bad}, "CR, LF or NUL");
    }
}

TEST_F(AnInitialisedEasyHandle, RefusesTextsThatLibcurlWouldCutOrSendAsTheyAre)
{
    for (const auto option :
         {MZCURL_OPT_URL, MZCURL_OPT_CAINFO, MZCURL_OPT_SSLCERT, MZCURL_OPT_CUSTOMREQUEST}) {
        refuses(option, std::string("a\0b", 3), "NUL");
    }
    for (const char* const method : {"", "DELETE /other", "GET\r\nA: 1", "GET\n", "GE\x7fT"}) {
        refuses(MZCURL_OPT_CUSTOMREQUEST, std::string(method), "name of a method");
    }
}

TEST_F(AnInitialisedEasyHandle, RefusesAUrlWithoutAHostInsteadOfTakingThePathForOne)
{
    for (const char* const url : {"https:///billing/v2/country?a=b", "https:////x", "http:///"}) {
        refuses(MZCURL_OPT_URL, std::string(url), "names no host");
    }
    EXPECT_TRUE(easy.setOption(MZCURL_OPT_URL, std::string("https://host/path?back=https:///x")));
}

TEST_F(AnInitialisedEasyHandle, GivesBackItsPrivatePointerUntilItIsReset)
{
    int value = 0;
    void* pointer = nullptr;
    EXPECT_FALSE(easy.getInfo(MZCURL_INFO_PRIVATE, &pointer));
    ASSERT_TRUE(easy.setOption(MZCURL_OPT_PRIVATE, static_cast<void*>(&value)));
    EXPECT_FALSE(easy.getInfo(static_cast<MZCURL_INFO_TYPE>(1), &pointer));
    EXPECT_FALSE(easy.getInfo(MZCURL_INFO_PRIVATE, nullptr));
    EXPECT_EQ(pointer, nullptr);
    EXPECT_TRUE(easy.getInfo(MZCURL_INFO_PRIVATE, &pointer));
    EXPECT_EQ(pointer, &value);

    easy.reset();
    pointer = &easy;
    EXPECT_FALSE(easy.getInfo(MZCURL_INFO_PRIVATE, &pointer));
    EXPECT_EQ(pointer, &easy);
    EXPECT_FALSE(easy.Initialize()) << "a reset handle stays initialised";
}

TEST(ATransfer, DeliversTheBodyWhateverTheStatus)
{
    TestServer server([](Connection& connection) {
        Request request;
        connection.read(request);
        connection.write("HTTP/1.1 500 No\r\nContent-Length: 5\r\n\r\nsorry");
    });
    Transfer transfer(server.url());
    EXPECT_TRUE(transfer.easy.send());
    EXPECT_EQ(transfer.body, "sorry");
    EXPECT_THAT(transfer.easy.getLastError(), IsEmpty());
}

TEST(ATransfer, SendsItsBodyByteForByte)
{
    TestServer server(test::always("ok"));
    const std::string text("a\0b\xff\r\n", 6);
    Transfer transfer(server.url());
    transfer.sending(text);
    EXPECT_TRUE(transfer.easy.send());
    Transfer removal(server.url());
    removal.sending(text, "DELETE");
    EXPECT_TRUE(removal.easy.send());

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_TRUE(requests[0].has("POST / HTTP/1.1"));
    EXPECT_TRUE(requests[1].has("DELETE / HTTP/1.1"));
    for (const Request& request : requests) {
        EXPECT_EQ(request.body, text);
        EXPECT_FALSE(request.has("Expect"));
    }
}

TEST(ATransfer, PostsWithoutABodyAndNoMoreWhenThatIsTakenBack)
{
    TestServer server(test::always("ok"));
    Transfer transfer(server.url());
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_POST, 1));
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_POSTFIELDSIZE, 0LL));
    EXPECT_TRUE(transfer.easy.send());
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_POST, 0));
    EXPECT_TRUE(transfer.easy.send());
    ASSERT_EQ(server.requests().size(), 2U);
    EXPECT_TRUE(server.requests()[0].has("POST / HTTP/1.1"));
    EXPECT_TRUE(server.requests()[1].has("GET / HTTP/1.1"));
}

TEST(ATransfer, SendsNoLineForAHeaderWithNothingBehindItsColon)
{
    TestServer server(test::always("ok"));
    Transfer transfer(server.url());
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_HTTPHEADER, Lines{"Token:", "Kept: 1"}));
    EXPECT_TRUE(transfer.easy.send());
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_FALSE(server.requests()[0].has("Token"));
    EXPECT_TRUE(server.requests()[0].has("Kept: 1\r\n"));
}

TEST(ATransfer, TakesEmptyCertificateTextsForNone)
{
    const test::CertificateAuthority authority;
    const test::TemporaryFolder folder;
    authority.writeTo(folder.path("ca.pem"));
    const test::Identity identity = authority.issue();
    TestServer server(test::always("ok"), {&identity});
    Transfer transfer(server.url(), folder.path("ca.pem"));
    for (const auto option :
         {MZCURL_OPT_SSLCERT, MZCURL_OPT_SSLCERTTYPE, MZCURL_OPT_SSLKEY, MZCURL_OPT_SSLKEYTYPE}) {
        ASSERT_TRUE(transfer.easy.setOption(option, std::string()));
    }
    EXPECT_TRUE(transfer.easy.send()) << transfer.easy.getLastError();
    EXPECT_EQ(transfer.body, "ok");
}

TEST(ATransfer, KeepsNothingOfAnOptionThatAResetForgot)
{
    TestServer server(test::always("ok"));
    Transfer transfer(server.url());
    transfer.sending("text", "DELETE");
    transfer.easy.reset();
    EXPECT_FALSE(transfer.easy.send());
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_URL, server.url()));
    EXPECT_FALSE(transfer.easy.send()) << "plain http has to be allowed again";
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_SSL_VERIFYPEER, 0));
    EXPECT_TRUE(transfer.easy.send()) << "a body without a reader is dropped";
    EXPECT_EQ(transfer.body, "");
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_TRUE(server.requests()[0].has("GET / HTTP/1.1"));
    EXPECT_EQ(server.requests()[0].body, "");
}

std::size_t dropBody(char* /*data*/, std::size_t size, std::size_t count, void* /*user*/)
{
    return size * count;
}

TEST(ATransfer, SendsTheTargetThatLibcurlAloneWouldSend)
{
    TestServer server(test::always("ok"));
    for (const char* const rest : {"",
                                   "/",
                                   "/a/b?c=d&e=f",
                                   "/a?b=http://other/x?y",
                                   "/a#part",
                                   "/a?b#part",
                                   "?a=/b",
                                   "/a?",
                                   "/a/../b",
                                   "/a/./b?c",
                                   "/.a",
                                   "/%2e%2e/a",
                                   "/a%20b?c%20d",
                                   "/a?b=../c",
                                   "/\xc3\xa4?\xc3\xa4",
                                   "/a?{b}[c]|d\\e",
                                   "\\a",
                                   "/a\\..\\b",
                                   "//a",
                                   "/a?b?c",
                                   "/a:b@c",
                                   "#part"}) {
        const std::string url = server.url() + rest;
        const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> plain(curl_easy_init(),
                                                                        curl_easy_cleanup);
        curl_easy_setopt(plain.get(), CURLOPT_URL, url.c_str());
        curl_easy_setopt(plain.get(), CURLOPT_PROXY, "");
        curl_easy_setopt(plain.get(), CURLOPT_WRITEFUNCTION, dropBody);
        const bool sent = curl_easy_perform(plain.get()) == CURLE_OK;
        Transfer transfer(url);
        EXPECT_EQ(transfer.easy.send(), sent) << url;
        const auto requests = server.requests();
        if (sent) {
            EXPECT_EQ(requests[requests.size() - 1].head, requests[requests.size() - 2].head)
                << url;
        }
    }
    EXPECT_GE(server.requests().size(), 38U) << "most of the URLs are valid";
}

TEST(ATransfer, SendsNoUrlThatLibcurlRefuses)
{
    TestServer server(test::always("ok"));
    for (const char* const rest : {"/a b", "/a\tb", "/a\x7f", "/a?b=c d", "/a?b\r\nX: 1"}) {
        Transfer transfer(server.url() + rest);
        EXPECT_FALSE(transfer.easy.send()) << rest;
        EXPECT_THAT(transfer.easy.getLastError(), HasSubstr("URL")) << rest;
    }
    EXPECT_TRUE(server.requests().empty());
}

TEST(ATransfer, EndsWithItsTime)
{
    TestServer server([](Connection& connection) {
        Request request;
        while (connection.read(request)) {
        }
    });
    Transfer transfer(server.url());
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_TIMEOUT, 1));
    const auto start = test::Clock::now();
    EXPECT_FALSE(transfer.easy.send());
    EXPECT_THAT(transfer.easy.getLastError(), HasSubstr("timed out"));
    EXPECT_GE(test::secondsSince(start), 0.9);
    EXPECT_LT(test::secondsSince(start), 10);
}

TEST(ATransfer, GoesToAMultiHandleAfterItWasSent)
{
    TestServer server(test::always("ok"));
    Transfer transfer(server.url() + "/alone");
    EXPECT_TRUE(transfer.easy.send());
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_URL, server.url() + "/together"));
    test::Worker worker;
    EXPECT_TRUE(worker.run(transfer).success);
    ASSERT_EQ(server.requests().size(), 2U);
    EXPECT_TRUE(server.requests()[1].has("GET /together"));
}

TEST(ATransfer, SaysWhyItFailed)
{
    Transfer transfer("http://127.0.0.1:1/");
    EXPECT_FALSE(transfer.easy.send());
    EXPECT_THAT(transfer.easy.getLastError(), HasSubstr("127.0.0.1 port 1"));
}

}  // namespace
