// burst_test.cpp - the number of connections for many transfers at once.
#include "test_server.h"
#include "transfers.h"

#include <platform/MZCurl.h>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>

namespace {

std::atomic<int> g_trims{0};

}  // namespace

/// Replaces the C library's function: counts how often free memory is returned to the system.
extern "C" int malloc_trim(std::size_t kept) noexcept
{
    ++g_trims;
    static const auto real =
        reinterpret_cast<int (*)(std::size_t)>(dlsym(RTLD_NEXT, "malloc_trim"));
    return real != nullptr ? real(kept) : 0;
}

namespace {

using test::Connection;
using test::readOne;
using test::Request;
using test::several;
using test::TestServer;
using test::Transfer;
using test::Worker;

constexpr int kBurst = 100;

/// Runs that many transfers at once, beside transfers that are already running.
void runMany(Worker& worker, const std::string& url, int count)
{
    const auto transfers = several(count, url);
    for (const auto& transfer : transfers) {
        ASSERT_TRUE(worker.multi.addHandle(&transfer->easy));
    }
    int running = 0;
    for (int ended = 0; ended < count;) {
        ASSERT_TRUE(worker.multi.fdSelect(running));
        for (auto m = readOne(worker.multi); m.pEasyHandle != nullptr; m = readOne(worker.multi)) {
            ASSERT_TRUE(m.bSuccess);
            ASSERT_TRUE(worker.multi.removeHandle(m.pEasyHandle));
            ++ended;
        }
    }
}

TEST(AMultiHandle, KeepsEveryConnectionOfABurstWhileItLasts)
{
    TestServer server([](Connection& connection) {
        Request request;
        while (connection.read(request)) {
            if (!request.has("GET /hang")) {
                // The delay makes each transfer need a connection of its own.
                std::this_thread::sleep_for(std::chrono::milliseconds(400));
                connection.answer("ok");
            }
        }
    });
    Transfer hanging(server.url() + "/hang");
    Worker worker;
    ASSERT_TRUE(worker.multi.addHandle(&hanging.easy));
    runMany(worker, server.url(), kBurst);
    const int first = server.connections();

    runMany(worker, server.url(), kBurst);

    EXPECT_LT(server.connections() - first, 10) << "of " << first;
    ASSERT_TRUE(worker.multi.removeHandle(&hanging.easy));
}

TEST(AMultiHandle, KeepsTheConnectionsOfABurstOverAMomentWithoutTransfers)
{
    TestServer server(test::always("ok"));
    Worker worker;
    runMany(worker, server.url(), kBurst);
    const int before = server.connections();
    Transfer next(server.url());
    std::thread adder([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_TRUE(worker.multi.addHandle(&next.easy));
    });
    int running = 0;
    while (readOne(worker.multi).pEasyHandle == nullptr) {
        ASSERT_TRUE(worker.multi.fdSelect(running));
    }
    adder.join();
    EXPECT_EQ(server.connections(), before);
    EXPECT_TRUE(worker.multi.removeHandle(&next.easy));
}

TEST(AMultiHandle, SharesAFewConnectionsAmongManyWhileAnswersComeBack)
{
    // More connections are opened while answers are slow, as they may be on a busy machine.
    bool shared = false;
    for (int round = 0; round < 5 && !shared; ++round) {
        TestServer server(test::always("ok"));
        Worker worker;
        runMany(worker, server.url(), kBurst);
        shared = server.connections() <= kBurst * 3 / 4;
    }
    EXPECT_TRUE(shared);
}

/// A connection may be reused in the same round of network work in which its last answer arrived.
TEST(AMultiHandle, TakesTheConnectionOfAnAnswerThatIsNotReadOutYet)
{
    TestServer server([](Connection& connection) {
        Request request;
        while (connection.read(request)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            connection.answer("ok");
        }
    });
    Transfer first(server.url());
    Transfer second(server.url());
    Worker worker;
    int running = 0;
    ASSERT_TRUE(worker.multi.addHandle(&first.easy));
    while (server.requests().empty()) {
        ASSERT_TRUE(worker.multi.fdSelect(running));
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
    ASSERT_TRUE(worker.multi.addHandle(&second.easy));
    for (int ended = 0; ended < 2;) {
        ASSERT_TRUE(worker.multi.fdSelect(running));
        for (auto m = readOne(worker.multi); m.pEasyHandle != nullptr; m = readOne(worker.multi)) {
            EXPECT_TRUE(m.bSuccess);
            EXPECT_TRUE(worker.multi.removeHandle(m.pEasyHandle));
            ++ended;
        }
    }
    EXPECT_EQ(server.connections(), 1);
}

/// Number of further connections that a transfer makes after that many transfers at once have ended.
int madeAfter(int count)
{
    // The delay makes each transfer need a connection of its own.
    TestServer server([](Connection& connection) {
        Request request;
        while (connection.read(request)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            connection.answer("ok");
        }
    });
    Worker worker;
    int running = 0;
    runMany(worker, server.url(), count);
    EXPECT_TRUE(worker.multi.fdSelect(running));
    const int before = server.connections();
    runMany(worker, server.url(), 1);
    return server.connections() - before;
}

TEST(AMultiHandle, ClosesTheConnectionsOfABurstWhenItHasEndedAndReturnsItsMemory)
{
    g_trims = 0;
    EXPECT_EQ(madeAfter(3), 0);
    EXPECT_EQ(g_trims, 0);
    EXPECT_EQ(madeAfter(kBurst), 1);
    EXPECT_EQ(g_trims, 1);
}

}  // namespace
