// resend_test.cpp - a kept connection that dies: what is asked again, and what is not.
#include "test_server.h"
#include "transfers.h"

#include <platform/MZCurl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>

namespace {

using namespace MZCurl;
using test::Connection;
using test::Outcome;
using test::Request;
using test::TestServer;
using test::Transfer;
using test::Worker;
using testing::HasSubstr;

/// Keeps its first connection for one answer, reads one request more and hangs up without a word.
/// Later connections answer everything.
class AServerThatHangsUp : public testing::Test {
protected:
    std::size_t seen(const std::string& method)
    {
        std::size_t count = 0;
        for (const Request& request : server.requests()) {
            count += request.has(method + " /second ") ? 1U : 0U;
        }
        return count;
    }

    std::string first() { return server.url() + "/first"; }
    std::string second() { return server.url() + "/second"; }

    std::atomic<int> number{0};
    TestServer server{[this](Connection& connection) {
        Request request;
        if (number++ == 0) {
            connection.read(request);
            connection.answer("first");
            connection.read(request);
            return;
        }
        while (connection.read(request) && connection.answer("later")) {
        }
    }};
    Worker worker;
};

TEST_F(AServerThatHangsUp, IsAskedAgainWithAGet)
{
    Transfer opening(first());
    EXPECT_TRUE(worker.run(opening).success);
    Transfer get(second());
    EXPECT_TRUE(worker.run(get).success);
    EXPECT_EQ(get.body, "later");
    EXPECT_EQ(seen("GET"), 2U) << "the test is about a connection that was kept";
}

TEST_F(AServerThatHangsUp, IsNotSentAPostTwice)
{
    Transfer opening(first());
    EXPECT_TRUE(worker.run(opening).success);
    Transfer post(second());
    post.sending("once");
    const Outcome outcome = worker.run(post);
    EXPECT_FALSE(outcome.success);
    EXPECT_THAT(outcome.error, HasSubstr("not sent a second time"));
    EXPECT_EQ(seen("POST"), 1U);
}

TEST_F(AServerThatHangsUp, IsNotSentADeleteTwice)
{
    Transfer opening(first());
    EXPECT_TRUE(worker.run(opening).success);
    Transfer removal(second());
    removal.sending("once", "DELETE");
    EXPECT_FALSE(worker.run(removal).success);
    EXPECT_EQ(seen("DELETE"), 1U);
}

TEST_F(AServerThatHangsUp, IsNotSentAMethodTwiceThatHasNoBody)
{
    Transfer opening(first());
    EXPECT_TRUE(worker.run(opening).success);
    Transfer removal(second());
    ASSERT_TRUE(removal.easy.setOption(MZCURL_OPT_CUSTOMREQUEST, std::string("DELETE")));
    EXPECT_FALSE(worker.run(removal).success);
    EXPECT_EQ(seen("DELETE"), 1U);
}

TEST_F(AServerThatHangsUp, IsNotSentAPostTwiceByAHandleOnItsOwn)
{
    Transfer transfer(first());
    EXPECT_TRUE(transfer.easy.send());
    transfer.sending("once");
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_URL, second()));
    EXPECT_FALSE(transfer.easy.send());
    EXPECT_EQ(seen("POST"), 1U);
    EXPECT_TRUE(transfer.easy.send()) << "a new transfer may send it again";
    EXPECT_EQ(seen("POST"), 2U);
}

TEST_F(AServerThatHangsUp, IsAskedAgainByAHandleThatWentBackToGet)
{
    Transfer opening(first());
    EXPECT_TRUE(worker.run(opening).success);
    Transfer transfer(second());
    transfer.sending("text");
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_HTTPGET, 1));
    EXPECT_TRUE(worker.run(transfer).success);
    EXPECT_EQ(seen("GET"), 2U);
}

}  // namespace
