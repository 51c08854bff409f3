// large_test.cpp - large answers wait for each other; what happens to the waiting ones.
#include "curl/queue/quotas.h"
#include "test_server.h"
#include "transfers.h"

#include <platform/MZCurl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace MZCurl;
using std::chrono::milliseconds;
using std::chrono::seconds;
using test::Connection;
using test::Outcome;
using test::Request;
using test::secondsSince;
using test::TestServer;
using test::Transfer;
using test::Worker;
using testing::HasSubstr;

constexpr std::size_t kHuge = kLargeAnswer + 1000000;
constexpr int kTimedOut = 28;

std::string head(std::size_t length)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
}

/// Names of the readers in the order in which bytes of large bodies came; repetitions of one name are left
/// out.
std::string g_turns;

struct Reader {
    char name;
    std::size_t bytes = 0;
};

unsigned int noteTurn(char*, unsigned int size, unsigned int count, void* pointer)
{
    Reader& reader = *static_cast<Reader*>(pointer);
    reader.bytes += std::size_t{size} * count;
    if (reader.bytes > kSmallAnswer && (g_turns.empty() || g_turns.back() != reader.name)) {
        g_turns += reader.name;
    }
    return size * count;
}

/// Holds the ticket for huge answers until its time is over, it is released, or destroyed.
class InHand {
public:
    InHand() : m_body(CountBody(kHuge)) {}
    explicit InHand(milliseconds time) : InHand()
    {
        m_thread = std::thread([this, time] {
            std::this_thread::sleep_for(time);
            m_body.reset();
        });
    }
    ~InHand()
    {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    InHand(const InHand&) = delete;
    InHand& operator=(const InHand&) = delete;

private:
    std::shared_ptr<void> m_body;
    std::thread m_thread;
};

class ALargeAnswer : public testing::Test {
protected:
    Worker worker;
    const std::string whole = std::string(kHuge, 'x');
};

TEST_F(ALargeAnswer, ComesAfterTheOthersOfItsKind)
{
    const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (const bool lengthKnown : {true, false}) {
        TestServer server([&](Connection& connection) {
            Request request;
            connection.read(request);
            char size[32];
            static_cast<void>(std::snprintf(size, sizeof size, "%zx\r\n", whole.size()));
            connection.write(lengthKnown ? head(kHuge) : chunked + size);
            connection.write(whole);
            connection.write(lengthKnown ? "" : "\r\n0\r\n\r\n");
        });
        g_turns.clear();
        auto transfers = test::several(3, server.url());
        std::vector<Transfer*> all;
        std::vector<Reader> readers{{'a'}, {'b'}, {'c'}};
        for (std::size_t i = 0; i < readers.size(); ++i) {
            all.push_back(transfers[i].get());
            EXPECT_TRUE(all[i]->easy.setOption(MZCURL_OPT_WRITEFUNCTION, noteTurn));
            EXPECT_TRUE(all[i]->easy.setOption(MZCURL_OPT_WRITEDATA, &readers[i]));
        }
        worker.run(all);
        for (std::size_t i = 0; i < readers.size(); ++i) {
            EXPECT_TRUE(worker.outcome(*all[i]).success) << worker.outcome(*all[i]).error;
            EXPECT_EQ(readers[i].bytes, kHuge);
        }
        if (lengthKnown) {
            EXPECT_EQ(g_turns.size(), 3U) << g_turns;
        }
    }
}

TEST_F(ALargeAnswer, WaitsForABodyThatIsInMemory)
{
    TestServer server(test::always(whole));
    Transfer get(server.url());
    Transfer post(server.url());
    post.sending("once");
    const auto start = test::Clock::now();
    const InHand body(milliseconds(500));
    worker.run({&get, &post});
    EXPECT_GE(secondsSince(start), 0.5);
    EXPECT_TRUE(worker.outcome(get).success) << worker.outcome(get).error;
    EXPECT_TRUE(worker.outcome(post).success) << worker.outcome(post).error;
    EXPECT_TRUE(get.body == whole);
    EXPECT_TRUE(post.body == whole);
}

TEST_F(ALargeAnswer, GoesOnSoonAfterTheBodyThatWasInMemory)
{
    TestServer server(test::always(whole));
    double fastest = 100;
    for (int i = 0; i < 5; ++i) {
        Transfer get(server.url());
        const auto start = test::Clock::now();
        const InHand body(milliseconds(300));
        EXPECT_TRUE(worker.run(get).success) << worker.outcome(get).error;
        fastest = std::min(fastest, secondsSince(start));
    }
    EXPECT_LT(fastest, 0.9) << "a wait that looks for no body lasts a second";
}

TEST_F(ALargeAnswer, LetsSmallOnesPassWhileItWaits)
{
    TestServer large(test::always(whole));
    TestServer small(test::always(std::string(kSmallAnswer, 's')));
    const InHand body;
    Transfer waiting(large.url());
    ASSERT_TRUE(waiting.easy.setOption(MZCURL_OPT_TIMEOUT, 2));
    Transfer passing(small.url());
    ASSERT_TRUE(passing.easy.setOption(MZCURL_OPT_TIMEOUT, 1));
    worker.run({&waiting, &passing});
    EXPECT_TRUE(worker.outcome(passing).success) << worker.outcome(passing).error;
    EXPECT_EQ(worker.outcome(waiting).code, kTimedOut);
}

TEST_F(ALargeAnswer, EndsWithItsTimeWhileItWaits)
{
    TestServer server(test::always(whole));
    const InHand body;
    Transfer transfer(server.url());
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_TIMEOUT, 1));
    const auto start = test::Clock::now();
    const Outcome outcome = worker.run(transfer);
    EXPECT_EQ(outcome.code, kTimedOut);
    EXPECT_GE(secondsSince(start), 0.9);
    EXPECT_LT(secondsSince(start), 10);
    EXPECT_LE(transfer.body.size(), kSmallAnswer);
}

TEST_F(ALargeAnswer, IsGivenUpWhenItFallsSilentAndOthersWait)
{
    std::atomic<int> number{0};
    std::atomic<bool> isGivenUp{false};
    std::atomic<bool> isOver{false};
    constexpr std::size_t kSome = 100000;
    TestServer server([&](Connection& connection) {
        Request request;
        connection.read(request);
        const bool isFirst = request.has("/silent");
        connection.write(head(kHuge));
        if (isFirst) {
            connection.write(std::string(kSome, 'x'));
            while (!isGivenUp) {
                std::this_thread::sleep_for(milliseconds(10));
            }
            connection.write(whole);
            isOver = true;
        } else {
            while (number == 0) {
                std::this_thread::sleep_for(milliseconds(10));
            }
            connection.write(whole);
        }
    });
    Transfer silent(server.url() + "/silent");
    Transfer next(server.url() + "/next");
    struct Start {
        std::atomic<int>* number;
        std::string* body;
    } started{&number, &silent.body};
    ASSERT_TRUE(silent.easy.setOption(MZCURL_OPT_WRITEDATA, &started));
    ASSERT_TRUE(silent.easy.setOption(
        MZCURL_OPT_WRITEFUNCTION,
        WriteCallback([](char* data, unsigned int size, unsigned int count, void* pointer) {
            Start& start = *static_cast<Start*>(pointer);
            ++*start.number;
            return test::appendBody(data, size, count, start.body);
        })));
    ASSERT_TRUE(worker.multi.addHandle(&silent.easy));
    ASSERT_TRUE(worker.multi.addHandle(&next.easy));
    MZCurlMulti::MultiMsg ofSilent;
    int running = 0;
    while (!isOver) {
        ASSERT_TRUE(worker.multi.fdSelect(running));
        const auto message = test::readOne(worker.multi);
        if (message.pEasyHandle != nullptr) {
            ofSilent = message;
            isGivenUp = true;
        }
    }
    ASSERT_EQ(ofSilent.pEasyHandle, &silent.easy);
    EXPECT_EQ(ofSilent.iResult, kTimedOut);
    EXPECT_THAT(ofSilent.strError, HasSubstr("others waited"));
    EXPECT_EQ(silent.body.size(), kSome) << "nothing comes after the end";
    EXPECT_TRUE(worker.multi.removeHandle(&silent.easy));
    worker.run({});
    EXPECT_TRUE(worker.outcome(next).success) << worker.outcome(next).error;
    EXPECT_TRUE(next.body == whole);
}

TEST_F(ALargeAnswer, IsNotTakenForLostWhileItWaitsOnAKeptConnection)
{
    TestServer server([this](Connection& connection) {
        Request request;
        connection.read(request);
        connection.answer("first");
        if (connection.read(request)) {
            connection.answer(whole);
        }
    });
    Transfer first(server.url());
    ASSERT_TRUE(worker.run(first).success);
    // A silent connection is closed after 15 s.
    const InHand body(milliseconds(17000));
    Transfer second(server.url());
    ASSERT_TRUE(second.easy.setOption(MZCURL_OPT_TIMEOUT, 90));
    const Outcome outcome = worker.run(second);
    EXPECT_TRUE(outcome.success) << outcome.error;
    EXPECT_TRUE(second.body == whole);
    EXPECT_EQ(server.connections(), 1) << "the test is about a connection that was kept";
}

}  // namespace
