// refusal_test.cpp - the wrapper when a function of a library fails, and its calls of the libraries.
#include "libcurl_double.h"
#include "platform_double.h"
#include "test_server.h"
#include "transfers.h"

#include <platform/MZCurl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <thread>

namespace {

using namespace MZCurl;
using test::Clock;
using test::libcurl;
using test::Outcome;
using test::secondsSince;
using test::TestServer;
using test::Transfer;
using test::Worker;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

// Has to be the first test: the libraries are initialised once in a process.
TEST(ASetUp, IsTriedAgainAfterAFailureAndThenDoneOnce)
{
    libcurl().failGlobalInit = 2;
    MZCurlMulti multi;
    MZCurlEasy easy;
    EXPECT_FALSE(multi.Initialize());
    EXPECT_FALSE(easy.Initialize());
    libcurl().setUp.clear();
    EXPECT_TRUE(multi.Initialize());
    EXPECT_TRUE(easy.Initialize());
    EXPECT_THAT(libcurl().setUp, ElementsAre("OpenSSL without exit handler", "libcurl"));
}

TEST(ARefusal, OfATextIsTriedAgainWithoutTheReserve)
{
    ASSERT_TRUE(MZCurlMulti().Initialize());
    libcurl().noMemory = true;
    for (int time = 0; time < 2; ++time) {
        ASSERT_NE(libcurl().reserve, nullptr);
        const std::unique_ptr<char, decltype(&std::free)> copy(libcurl().copyText("store.example"),
                                                               &std::free);
        EXPECT_STREQ(copy.get(), "store.example");
    }
    libcurl().noMemory = false;
}

TEST(ARefusal, OfAHandleIsTheEndOfItsTransferOnly)
{
    TestServer server(test::always("ok"));
    Transfer first(server.url());
    Transfer second(server.url());
    Worker worker;
    libcurl().failEasyInit = 1;
    takeLog();
    worker.run({&first, &second});
    EXPECT_THAT(takeLog(),
                Contains("I transfer 1: " + server.url() +
                         ", curl 27, HTTP 0, new connections 0, name 0 us, connect 0 us, TLS 0 us, "
                         "first byte 0 us, whole 0 us, 0 bytes"));
    EXPECT_EQ(worker.outcome(first).times, 1);
    EXPECT_EQ(worker.outcome(first).code, CURLE_OUT_OF_MEMORY);
    EXPECT_EQ(worker.outcome(first).error, "There is no memory for the transfer");
    EXPECT_TRUE(worker.outcome(second).success);
    EXPECT_TRUE(worker.run(first).success);
}

TEST(ARefusal, OfARuleOrAnOptionLetsNoTransferBeginWithoutIt)
{
    TestServer server(test::always("ok"));
    Worker worker;
    for (const auto rule :
         {CURLOPT_CAPATH, CURLOPT_PROXY, CURLOPT_PROTOCOLS_STR, CURLOPT_PREREQFUNCTION,
          CURLOPT_HEADERFUNCTION, CURLOPT_QUICK_EXIT, CURLOPT_SSL_VERIFYPEER, CURLOPT_URL}) {
        Transfer transfer(server.url());
        libcurl().failOption = rule;
        const Outcome& outcome = worker.run(transfer);
        EXPECT_FALSE(outcome.success) << rule;
        EXPECT_EQ(outcome.code, CURLE_OUT_OF_MEMORY) << rule;
        EXPECT_FALSE(transfer.easy.send()) << rule;
        libcurl().failOption = CURLOPT_LASTENTRY;
        EXPECT_EQ(server.requests().size(), 0U) << rule;
    }
}

TEST(ARefusal, OfTheMultiHandleIsOvercomeLater)
{
    MZCurlEasy easy;
    ASSERT_TRUE(easy.Initialize());
    MZCurlMulti multi;
    libcurl().failMultiInit = 1;
    EXPECT_FALSE(multi.Initialize());
    multi.Start();
    EXPECT_FALSE(multi.addHandle(&easy));
    EXPECT_TRUE(multi.Initialize());
    EXPECT_TRUE(multi.addHandle(&easy));
}

TEST(ARefusal, ToStartATransferIsItsFailedCompletion)
{
    TestServer server(test::always("ok"));
    Transfer first(server.url());
    Transfer second(server.url());
    Worker worker;
    libcurl().failAddHandle = 1;
    worker.run({&first, &second});
    const Outcome& outcome = worker.outcome(first);
    EXPECT_EQ(outcome.times, 1);
    EXPECT_FALSE(outcome.success);
    EXPECT_EQ(outcome.code, CURLE_FAILED_INIT);
    EXPECT_EQ(outcome.error, curl_multi_strerror(CURLM_OUT_OF_MEMORY));
    EXPECT_TRUE(worker.outcome(second).success) << "nobody waits for a leader that never went";
    EXPECT_TRUE(worker.run(first).success);
}

TEST(AStop, InTheMiddleOfARoundIsNoFailure)
{
    Transfer first("http://127.0.0.1:1/");
    Worker worker;
    ASSERT_TRUE(worker.multi.addHandle(&first.easy));
    libcurl().failAddHandle = 1;
    libcurl().onAddHandle = [&worker] { worker.multi.Stop(); };
    int running = 7;
    EXPECT_TRUE(worker.multi.fdSelect(running));
    EXPECT_EQ(running, 0);
}

TEST(AnAddition, InTheMiddleOfARoundIsNoFailure)
{
    Transfer first("http://127.0.0.1:1/");
    Transfer second("http://127.0.0.1:1/");
    Worker worker;
    ASSERT_TRUE(worker.multi.addHandle(&first.easy));
    libcurl().failAddHandle = 1;
    libcurl().onAddHandle = [&] { EXPECT_TRUE(worker.multi.addHandle(&second.easy)); };
    int running = 0;
    EXPECT_TRUE(worker.multi.fdSelect(running));
    EXPECT_EQ(running, 2);
}

TEST(ARefusal, ToWaitIsReportedAndDoesNotStopTheWork)
{
    TestServer server(test::always("ok"));
    Transfer transfer(server.url());
    Worker worker;
    ASSERT_TRUE(worker.multi.addHandle(&transfer.easy));
    int running = 0;
    EXPECT_TRUE(worker.multi.fdSelect(running)) << "it has something to do and does not wait";
    libcurl().failPoll = 20;
    const auto start = Clock::now();
    for (int i = 0; i < 20; ++i) {
        EXPECT_FALSE(worker.multi.fdSelect(running));
        EXPECT_EQ(running, 1);
    }
    EXPECT_GE(secondsSince(start), 0.1) << "the caller's loop would spin";
    MZCurlMulti::MultiMsg message;
    while (message.pEasyHandle == nullptr) {
        EXPECT_TRUE(worker.multi.InfoRead(message));
        EXPECT_TRUE(worker.multi.fdSelect(running));
    }
    EXPECT_TRUE(message.bSuccess);
}

TEST(TheSharedSessions, AreTouchedByTheWorkerOnly)
{
    const test::CertificateAuthority authority;
    const test::TemporaryFolder folder;
    authority.writeTo(folder.path("ca.pem"));
    const test::Identity identity = authority.issue();
    TestServer server(test::always("ok"), {&identity});
    libcurl().shareSetters.clear();
    {
        Transfer transfer(server.url(), folder.path("ca.pem"));
        Worker worker;
        std::thread other([&] { EXPECT_TRUE(worker.multi.addHandle(&transfer.easy)); });
        other.join();
        EXPECT_THAT(libcurl().shareSetters, IsEmpty());
        worker.run({});
        EXPECT_TRUE(worker.outcome(transfer).success);
        std::thread last([&] { transfer.easy.reset(); });
        last.join();
    }
    EXPECT_THAT(libcurl().shareSetters, SizeIs(2));
    EXPECT_THAT(libcurl().shareSetters, Each(std::this_thread::get_id()));
}

TEST(TheSharedSessions, AreLetGoByTransfersThatAreNeverFreed)
{
    Transfer transfer("https://127.0.0.1:1/", "/no/such/file");
    libcurl().shareSetters.clear();
    {
        Worker worker;
        ASSERT_TRUE(worker.multi.addHandle(&transfer.easy));
        int running = 0;
        EXPECT_TRUE(worker.multi.fdSelect(running));
        EXPECT_THAT(libcurl().shareSetters, SizeIs(1));
    }
    EXPECT_THAT(libcurl().shareSetters, SizeIs(2));
}

TEST(AHandleOfLibcurl, ServesTheNextTransferUnlessItHasSessionsOfItsOwn)
{
    const test::CertificateAuthority authority;
    const test::TemporaryFolder folder;
    authority.writeTo(folder.path("ca.pem"));
    const test::Identity identity = authority.issue();
    // TLS 1.2: the session is there when the handshake is over.
    TestServer server(
        [](test::Connection& connection) {
            test::Request request;
            connection.read(request);
            connection.write("HTTP/1.1 204 Nothing\r\nConnection: close\r\n\r\n");
        },
        {&identity, TLS1_2_VERSION});
    Worker worker;
    libcurl().easyHandles = 0;
    for (int i = 0; i < 5; ++i) {
        Transfer transfer(server.url(), folder.path("ca.pem"));
        EXPECT_TRUE(worker.run(transfer).success);
    }
    EXPECT_LE(libcurl().easyHandles, 1);
    EXPECT_EQ(server.resumedHandshakes(), 4);
    for (int i = 0; i < 2; ++i) {
        Transfer alone(server.url(), folder.path("ca.pem"));
        EXPECT_TRUE(alone.easy.send());
    }
    EXPECT_EQ(server.resumedHandshakes(), 4);
}

TEST(TheSharedSessions, HaveNoPartInATransferOnTheCallingThread)
{
    Transfer transfer("https://127.0.0.1:1/", "/no/such/file");
    libcurl().shareSetters.clear();
    EXPECT_FALSE(transfer.easy.send());
    EXPECT_THAT(libcurl().shareSetters, IsEmpty());
}

}  // namespace
