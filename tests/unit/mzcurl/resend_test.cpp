// resend_test.cpp - a kept connection that breaks: which requests are sent again, and which never use a kept
// connection.
#include "platform_double.h"
#include "test_certificates.h"
#include "test_server.h"
#include "transfers.h"

#include <platform/MZCurl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace MZCurl;
using test::Connection;
using test::Request;
using test::secondsSince;
using test::TestServer;
using test::Transfer;
using test::Worker;
using testing::AllOf;
using testing::Contains;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;
using testing::Not;

/// An HTTPS server: over TLS the close alert hides a closed connection from the client. It answers one
/// request on its first connection and then runs `afterwards` of the test. Later connections answer every
/// request.
class AServer : public testing::Test {
protected:
    AServer() { authority.writeTo(caFile); }

    test::ServerOptions options(std::function<void(SSL_CTX*)> adjust = {}) const
    {
        test::ServerOptions made;
        made.identity = &identity;
        made.adjust = std::move(adjust);
        return made;
    }

    std::size_t seen(const std::string& start)
    {
        std::size_t count = 0;
        for (const Request& request : server.requests()) {
            count += request.has(start + " ") ? 1U : 0U;
        }
        return count;
    }

    void open()
    {
        Transfer opening(first(), caFile);
        EXPECT_TRUE(worker.run(opening).success);
    }

    std::string first() { return server.url() + "/first"; }
    std::string second() { return server.url() + "/second"; }

    test::TemporaryFolder folder;
    const std::string caFile = folder.path("ca.pem");
    const test::CertificateAuthority authority;
    const test::Identity identity = authority.issue();
    std::atomic<int> number{0};
    std::function<void(Connection&)> afterwards = [](Connection& connection) {
        Request request;
        connection.read(request);
    };
    TestServer server{[this](Connection& connection) {
                          Request request;
                          if (number++ == 0) {
                              connection.read(request);
                              connection.answer("first");
                              afterwards(connection);
                              return;
                          }
                          while (connection.read(request) && connection.answer("later")) {
                          }
                      },
                      options()};
    Worker worker;
};

/// @return number of lines of the log that tell of a refused connection
std::ptrdiff_t refusals()
{
    const auto lines = takeLog();
    return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find("refused the connection") != std::string::npos;
    });
}

/// A server that reads a second request and closes without an answer.
using AServerThatHangsUp = AServer;

TEST_F(AServerThatHangsUp, IsAskedOnceMoreWithAGet)
{
    open();
    takeLog();
    Transfer get(second(), caFile);
    EXPECT_TRUE(worker.run(get).success);
    EXPECT_EQ(get.body, "later");
    EXPECT_EQ(seen("GET /second"), 2U) << "the test is about a connection that was kept";
    EXPECT_EQ(server.connections(), 2);
    EXPECT_THAT(takeLog(), Contains("I transfer 2 begins again: its connection was lost"));
}

TEST_F(AServerThatHangsUp, GetsAPostOverAConnectionOfItsOwn)
{
    open();
    Transfer post(second(), caFile);
    post.sending("once");
    EXPECT_TRUE(worker.run(post).success);
    EXPECT_EQ(post.body, "later");
    EXPECT_EQ(seen("POST /second"), 1U);
    EXPECT_EQ(server.connections(), 2);
    Transfer another(second(), caFile);
    another.sending("twice");
    EXPECT_TRUE(worker.run(another).success);
    EXPECT_EQ(server.connections(), 3) << "its connection is not kept";
}

TEST_F(AServerThatHangsUp, GetsADeleteOverAConnectionOfItsOwn)
{
    open();
    Transfer removal(second(), caFile);
    removal.sending("once", "DELETE");
    EXPECT_TRUE(worker.run(removal).success);
    EXPECT_EQ(seen("DELETE /second"), 1U);
}

TEST_F(AServerThatHangsUp, GetsAMethodWithoutABodyOverAConnectionOfItsOwn)
{
    open();
    Transfer removal(second(), caFile);
    ASSERT_TRUE(removal.easy.setOption(MZCURL_OPT_CUSTOMREQUEST, std::string("DELETE")));
    EXPECT_TRUE(worker.run(removal).success);
    EXPECT_EQ(seen("DELETE /second"), 1U);
}

TEST_F(AServerThatHangsUp, GetsAPostOverAConnectionOfItsOwnFromAHandleByItself)
{
    Transfer transfer(first(), caFile);
    EXPECT_TRUE(transfer.easy.send());
    transfer.sending("once");
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_URL, second()));
    EXPECT_TRUE(transfer.easy.send());
    EXPECT_EQ(seen("POST /second"), 1U);
}

TEST_F(AServerThatHangsUp, IsAskedOnceMoreByAHandleThatWentBackToGet)
{
    open();
    Transfer transfer(second(), caFile);
    transfer.sending("text");
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_HTTPGET, 1));
    EXPECT_TRUE(worker.run(transfer).success);
    EXPECT_EQ(seen("GET /second"), 2U);
}

TEST_F(AServer, ThatHasClosedAnIdleConnectionSeesTheNextRequestOnce)
{
    afterwards = [](Connection& connection) { connection.end(); };
    open();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    takeLog();
    Transfer get(second(), caFile);
    EXPECT_TRUE(worker.run(get).success);
    EXPECT_EQ(seen("GET /second"), 1U);
    EXPECT_EQ(server.connections(), 2);
    EXPECT_THAT(takeLog(), Not(Contains(HasSubstr("begins again"))));
}

TEST_F(AServer, ThatHasClosedABurstOfIdleConnectionsSeesTheNextRequestsOnce)
{
    TestServer burst(
        [](Connection& connection) {
            Request request;
            connection.read(request);
            // The delay lets every connection open before the first is answered.
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            connection.answer("text");
            connection.end();
        },
        options());
    const auto transfers = test::several(40, burst.url() + "/burst", caFile);
    std::vector<Transfer*> all;
    for (const auto& transfer : transfers) {
        all.push_back(transfer.get());
    }
    worker.run(all);
    EXPECT_EQ(burst.connections(), 40);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    for (int i = 0; i < 12; ++i) {
        Transfer get(burst.url() + "/later", caFile);
        EXPECT_TRUE(worker.run(get).success) << i;
    }
    EXPECT_EQ(burst.requests().size(), 52U);
}

TEST_F(AServer, IsAskedOverANewConnectionAfterAChangeOfTheNetwork)
{
    afterwards = [](Connection& connection) {
        Request request;
        while (connection.read(request) && connection.answer("old")) {
        }
    };
    open();
    Transfer before(second(), caFile);
    EXPECT_TRUE(worker.run(before).success);
    EXPECT_EQ(before.body, "old");
    changeNetwork();
    Transfer after(second(), caFile);
    EXPECT_TRUE(worker.run(after).success);
    EXPECT_EQ(after.body, "later");
    EXPECT_EQ(server.connections(), 2);
}

TEST_F(AServer, ThatGoesSilentAfterAChangeOfTheNetworkIsAskedOnceMore)
{
    afterwards = [](Connection& connection) {
        Request request;
        connection.read(request);
        changeNetwork();
        connection.read(request);  // Blocks: no further request comes.
    };
    open();
    const auto start = test::Clock::now();
    Transfer get(second(), caFile);
    EXPECT_TRUE(worker.run(get).success);
    EXPECT_EQ(get.body, "later");
    EXPECT_GE(secondsSince(start), 5);
    EXPECT_EQ(seen("GET /second"), 2U);
}

TEST_F(AServer, ThatGoesSilentOnAKeptConnectionIsAskedOnceMore)
{
    afterwards = [](Connection& connection) {
        Request request;
        connection.read(request);
        connection.read(request);
    };
    open();
    const auto start = test::Clock::now();
    Transfer get(second(), caFile);
    EXPECT_TRUE(worker.run(get).success);
    EXPECT_EQ(get.body, "later");
    EXPECT_GE(secondsSince(start), 15);
    EXPECT_EQ(seen("GET /second"), 2U);
}

TEST_F(AServer, ThatIsSilentOnANewConnectionThroughAChangeOfTheNetworkIsAskedOnceMore)
{
    std::atomic<int> connections{0};
    TestServer silent(
        [&connections](Connection& connection) {
            Request request;
            connection.read(request);
            if (connections++ == 0) {
                changeNetwork();
                connection.read(request);  // Blocks: no further request comes.
                return;
            }
            connection.answer("later");
        },
        options());
    Transfer get(silent.url() + "/", caFile);
    EXPECT_TRUE(worker.run(get).success);
    EXPECT_EQ(get.body, "later");
    EXPECT_EQ(silent.requests().size(), 2U);
}

TEST_F(AServer, ThatTakesLongOverAPostOrOnANewConnectionIsWaitedFor)
{
    TestServer slow(
        [](Connection& connection) {
            Request request;
            connection.read(request);
            changeNetwork();
            std::this_thread::sleep_for(std::chrono::seconds(7));
            connection.answer("late");
        },
        options());
    Transfer post(slow.url() + "/post", caFile);
    post.sending("once");
    EXPECT_TRUE(worker.run(post).success);
    EXPECT_EQ(post.body, "late");
    EXPECT_EQ(slow.requests().size(), 1U);
}

TEST_F(AServer, ThatEndsTheFirstRequestOfAConnectionMeansIt)
{
    TestServer rude(
        [](Connection& connection) {
            Request request;
            connection.read(request);
        },
        options());
    Transfer get(rude.url() + "/", caFile);
    EXPECT_FALSE(worker.run(get).success);
    EXPECT_EQ(rude.requests().size(), 1U);
}

TEST_F(AServer, ThatRefusesASessionIsAskedWithoutIt)
{
    // The server asks for a certificate without a session id context, so OpenSSL ends each handshake that
    // resumes a session.
    TestServer strict(
        [](Connection& connection) {
            Request request;
            connection.read(request);
            connection.answer("text");
            connection.end();  // Without the close alert OpenSSL discards the session.
        },
        options([](SSL_CTX* context) { SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr); }));
    takeLog();
    for (int i = 0; i < 6; ++i) {
        Transfer transfer(strict.url() + "/", caFile);
        if (i % 2 == 1) {
            transfer.sending("once");
        }
        const test::Outcome outcome = worker.run(transfer);
        EXPECT_TRUE(outcome.success) << i << ": " << outcome.error;
    }
    EXPECT_EQ(strict.requests().size(), 6U);
    EXPECT_EQ(strict.resumedHandshakes(), 0) << "the test is about sessions that are refused";
    EXPECT_THAT(takeLog(), Contains(HasSubstr("the server refused its TLS session")));
}

TEST_F(AServer, ThatRefusesConnectionsIsAskedFourTimesMore)
{
    for (const bool post : {false, true}) {
        takeLog();
        const auto start = test::Clock::now();
        Transfer transfer("https://127.0.0.1:1/", caFile);
        if (post) {
            transfer.sending("never");
        }
        EXPECT_FALSE(worker.run(transfer).success);
        EXPECT_GE(secondsSince(start), 3.75);
        EXPECT_EQ(refusals(), 4);
    }
}

TEST_F(AServer, ThatRefusesConnectionsTakesNoSlotsFromAnother)
{
    // With the four repetitions of each there are more attempts than slots. A transfer that gets none ends with another code.
    const auto transfers = test::several(100, "https://127.0.0.1:1/", caFile);
    std::vector<Transfer*> all;
    for (const auto& transfer : transfers) {
        all.push_back(transfer.get());
    }
    worker.run(all);
    for (const Transfer* const transfer : all) {
        EXPECT_EQ(worker.outcome(*transfer).code, 7) << worker.outcome(*transfer).error;
    }
    Transfer get(first(), caFile);
    EXPECT_TRUE(worker.run(get).success);
}

TEST_F(AServer, ThatRefusesConnectionsIsAskedNoMoreWhenTheTimeIsOver)
{
    takeLog();
    Transfer transfer("https://127.0.0.1:1/", caFile);
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_TIMEOUT, 2));
    EXPECT_FALSE(worker.run(transfer).success);
    // After 0.25, 0.5 and 1 s less than a second is left.
    EXPECT_THAT(refusals(), AllOf(Ge(1), Le(3)));
}

TEST_F(AServer, ThatCannotBeReachedIsNotAskedAgain)
{
    takeLog();
    Transfer transfer("https://255.255.255.255:1/", caFile);
    const test::Outcome outcome = worker.run(transfer);
    EXPECT_EQ(outcome.code, 7) << outcome.error;
    EXPECT_EQ(refusals(), 0);
}

TEST_F(AServerThatHangsUp, OnEveryConnectionIsTheReasonThatTheLastOneGives)
{
    std::atomic<int> opened{0};
    TestServer both(
        [&](Connection& connection) {
            Request request;
            connection.read(request);
            if (opened++ < 2) {
                // The delay makes two transfers need two connections.
                std::this_thread::sleep_for(std::chrono::milliseconds(500));
                connection.answer("first");
                connection.read(request);
            }
        },
        options());
    Transfer one(both.url() + "/one", caFile);
    Transfer two(both.url() + "/two", caFile);
    worker.run({&one, &two});
    ASSERT_EQ(both.connections(), 2);
    Transfer get(both.url() + "/second", caFile);
    const test::Outcome outcome = worker.run(get);
    EXPECT_FALSE(outcome.success);
    EXPECT_THAT(outcome.error, Not(HasSubstr("second time")));
}

TEST_F(AServer, ThatHasSentAPieceOfTheBodyIsNotAskedAgain)
{
    afterwards = [](Connection& connection) {
        Request request;
        connection.read(request);
        connection.write("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf");
    };
    open();
    Transfer get(second(), caFile);
    EXPECT_FALSE(worker.run(get).success);
    EXPECT_EQ(get.body, "half");
    EXPECT_EQ(seen("GET /second"), 1U);
}

TEST_F(AServer, ThatEndsBetweenHeaderAndBodyIsAskedOnceMore)
{
    afterwards = [](Connection& connection) {
        Request request;
        connection.read(request);
        connection.write("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n");
    };
    open();
    Transfer get(second(), caFile);
    EXPECT_TRUE(worker.run(get).success);
    EXPECT_EQ(get.body, "later");
}

}  // namespace
