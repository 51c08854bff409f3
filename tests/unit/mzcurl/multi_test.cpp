// multi_test.cpp - the multi handle: transfers that it accepts, that it counts as running, and that it hands
// out.
#include "test_server.h"
#include "transfers.h"

#include <platform/MZCurl.h>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace {

std::atomic<bool> g_resolverStuck{false};

}  // namespace

/// Replaces the C library's function: libcurl's resolver thread blocks here for the name "stuck.test".
extern "C" int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                           addrinfo** result)
{
    if (name != nullptr && std::strcmp(name, "stuck.test") == 0) {
        g_resolverStuck = true;
        std::this_thread::sleep_for(std::chrono::seconds(8));
        return EAI_AGAIN;
    }
    using Function = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
    const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "getaddrinfo"));
    return real(name, service, hints, result);
}

namespace {

using namespace MZCurl;
using test::Clock;
using test::Connection;
using test::Outcome;
using test::readOne;
using test::Request;
using test::secondsSince;
using test::several;
using test::TestServer;
using test::Transfer;
using test::Worker;
using testing::HasSubstr;
using testing::IsEmpty;

using Message = MZCurlMulti::MultiMsg;

/// Reads what a client sends and never answers.
void hang(Connection& connection)
{
    Request request;
    while (connection.read(request)) {
    }
}

TEST(AMultiHandle, RefusesEverythingBeforeItIsInitialised)
{
    MZCurlEasy easy;
    MZCurlMulti multi;
    ASSERT_TRUE(easy.Initialize());
    int running = 7;
    Message message;
    EXPECT_FALSE(multi.addHandle(&easy));
    EXPECT_FALSE(multi.removeHandle(&easy));
    EXPECT_FALSE(multi.Perform(running));
    EXPECT_EQ(running, 0);
    EXPECT_FALSE(multi.fdSelect(running));
    EXPECT_FALSE(multi.InfoRead(message));
    multi.Stop();
}

TEST(AMultiHandle, MayBeInitialisedAgain)
{
    MZCurlMulti multi;
    EXPECT_TRUE(multi.Initialize());
    EXPECT_TRUE(multi.Initialize());
}

TEST(AMultiHandle, AcceptsHandlesBetweenStartAndStopOnly)
{
    MZCurlEasy easy;
    MZCurlMulti multi;
    ASSERT_TRUE(easy.Initialize());
    ASSERT_TRUE(multi.Initialize());
    EXPECT_FALSE(multi.addHandle(&easy));
    multi.Start();
    EXPECT_TRUE(multi.addHandle(&easy));
    EXPECT_TRUE(multi.removeHandle(&easy));
    multi.Stop();
    EXPECT_FALSE(multi.addHandle(&easy));
    multi.Start();
    EXPECT_TRUE(multi.addHandle(&easy));
    EXPECT_TRUE(multi.removeHandle(&easy));
}

TEST(AMultiHandle, AcceptsHandlesWhenItsWorkerStartedBeforeItWasInitialised)
{
    MZCurlEasy easy;
    MZCurlMulti multi;
    ASSERT_TRUE(easy.Initialize());
    multi.Start();
    EXPECT_FALSE(multi.addHandle(&easy));
    ASSERT_TRUE(multi.Initialize());
    EXPECT_TRUE(multi.addHandle(&easy));
}

TEST(AMultiHandle, AcceptsAnInitialisedHandleOnce)
{
    MZCurlEasy easy;
    Worker worker;
    Worker other;
    EXPECT_FALSE(worker.multi.addHandle(nullptr));
    EXPECT_FALSE(worker.multi.addHandle(&easy));
    ASSERT_TRUE(easy.Initialize());
    EXPECT_TRUE(worker.multi.addHandle(&easy));
    EXPECT_FALSE(worker.multi.addHandle(&easy));
    EXPECT_FALSE(other.multi.addHandle(&easy));
    EXPECT_FALSE(easy.send());
    EXPECT_FALSE(other.multi.removeHandle(&easy));
    EXPECT_TRUE(worker.multi.removeHandle(&easy));
    EXPECT_FALSE(worker.multi.removeHandle(&easy));
    EXPECT_FALSE(worker.multi.removeHandle(nullptr));
    EXPECT_TRUE(other.multi.addHandle(&easy));
}

TEST(AMultiHandle, ComesBackAtOnceWhenNothingRuns)
{
    Worker worker;
    int running = 7;
    const auto start = Clock::now();
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(worker.multi.fdSelect(running));
    }
    EXPECT_EQ(running, 0);
    EXPECT_LT(secondsSince(start), 20.0) << "full waits take more than three minutes";
    EXPECT_EQ(readOne(worker.multi).pEasyHandle, nullptr);
}

TEST(AMultiHandle, CountsAHandleFromItsAdditionToItsRemoval)
{
    TestServer server(test::always("ok"));
    auto transfers = several(3, server.url());
    Worker worker;
    int running = 0;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(worker.multi.addHandle(&transfers[static_cast<std::size_t>(i)]->easy));
        EXPECT_TRUE(worker.multi.Perform(running));
        EXPECT_EQ(running, i + 1);
    }
    std::vector<MZCurlEasy*> finished;
    while (finished.size() < 3) {
        ASSERT_TRUE(worker.multi.fdSelect(running));
        EXPECT_EQ(running, 3);
        finished.clear();
        for (Message m = readOne(worker.multi); m.pEasyHandle != nullptr;
             m = readOne(worker.multi)) {
            finished.push_back(m.pEasyHandle);
        }
    }
    for (int i = 2; i >= 0; --i) {
        EXPECT_TRUE(worker.multi.removeHandle(finished[static_cast<std::size_t>(i)]));
        EXPECT_TRUE(worker.multi.fdSelect(running));
        EXPECT_EQ(running, i);
    }
}

TEST(AMultiHandle, HandsAFinishedTransferOutOncePerRoundUntilItIsRemoved)
{
    TestServer server(test::always("ok"));
    Transfer transfer(server.url());
    Worker worker;
    ASSERT_TRUE(worker.multi.addHandle(&transfer.easy));
    int running = 0;
    Message message;
    do {
        ASSERT_TRUE(worker.multi.fdSelect(running));
        message = readOne(worker.multi);
    } while (message.pEasyHandle == nullptr);

    for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(message.pEasyHandle, &transfer.easy);
        EXPECT_TRUE(message.bSuccess);
        EXPECT_EQ(message.iResult, 0);
        EXPECT_THAT(message.strError, IsEmpty());
        EXPECT_EQ(readOne(worker.multi).pEasyHandle, nullptr) << "once a round";
        EXPECT_TRUE(worker.multi.fdSelect(running));
        EXPECT_EQ(running, 1);
        message = readOne(worker.multi);
    }
    EXPECT_TRUE(worker.multi.removeHandle(&transfer.easy));
    EXPECT_TRUE(worker.multi.fdSelect(running));
    EXPECT_EQ(running, 0);
    EXPECT_EQ(readOne(worker.multi).pEasyHandle, nullptr);
}

TEST(AMultiHandle, DoesNotSleepWhileAFinishedTransferIsUnclaimed)
{
    TestServer server(hang);
    Transfer hanging(server.url());
    Transfer failing("no scheme://");
    Worker worker;
    ASSERT_TRUE(worker.multi.addHandle(&hanging.easy));
    ASSERT_TRUE(worker.multi.addHandle(&failing.easy));
    int running = 0;
    do {
        ASSERT_TRUE(worker.multi.fdSelect(running));
    } while (readOne(worker.multi).pEasyHandle == nullptr);
    while (server.requests().empty()) {
        ASSERT_TRUE(worker.multi.fdSelect(running));
    }
    const auto start = Clock::now();
    for (int round = 0; round < 50; ++round) {
        ASSERT_TRUE(worker.multi.fdSelect(running));
    }
    EXPECT_LT(secondsSince(start), 5.0) << "full waits take more than a minute";
    EXPECT_EQ(running, 2);
}

TEST(AMultiHandle, SleepsWhileItsTransfersHaveNothingToDo)
{
    TestServer server(hang);
    Transfer hanging(server.url());
    ASSERT_TRUE(hanging.easy.setOption(MZCURL_OPT_TIMEOUT, 2));
    Worker worker;
    ASSERT_TRUE(worker.multi.addHandle(&hanging.easy));
    int running = 0;
    int rounds = 0;
    do {
        ASSERT_TRUE(worker.multi.fdSelect(running));
        ++rounds;
    } while (readOne(worker.multi).pEasyHandle == nullptr);
    EXPECT_LT(rounds, 50) << "in two seconds";
}

TEST(AMultiHandle, TakesPendingAndRunningHandlesOut)
{
    TestServer server(hang);
    auto transfers = several(2, server.url());
    Worker worker;
    int running = 0;
    ASSERT_TRUE(worker.multi.addHandle(&transfers[0]->easy));
    while (server.requests().empty()) {
        ASSERT_TRUE(worker.multi.fdSelect(running));
    }
    ASSERT_TRUE(worker.multi.addHandle(&transfers[1]->easy));
    EXPECT_TRUE(worker.multi.removeHandle(&transfers[1]->easy)) << "pending";
    EXPECT_TRUE(worker.multi.Perform(running));
    EXPECT_EQ(running, 1);
    EXPECT_TRUE(worker.multi.removeHandle(&transfers[0]->easy)) << "running";
    EXPECT_TRUE(worker.multi.fdSelect(running));
    EXPECT_EQ(running, 0);
    EXPECT_EQ(readOne(worker.multi).pEasyHandle, nullptr);
}

TEST(AMultiHandle, UsesAHandleAgainThatWasTakenOut)
{
    TestServer server(test::always("ok"));
    Transfer transfer(server.url());
    Worker worker;
    EXPECT_TRUE(worker.run(transfer).success);
    EXPECT_TRUE(worker.run(transfer).success);
    EXPECT_TRUE(transfer.easy.send());
    EXPECT_EQ(transfer.body, "okokok");
}

TEST(AMultiHandle, FailsABadAddressWithoutSendingAnything)
{
    Worker worker;
    for (const char* const url :
         {"http://127.0.0.1 /", "http://127.0.0.1/a b", "http://a\x01/", "http://127.0.0.1/\x7f",
          "http://127.0.0.1/a\r\nHost: evil", "http://127.0.0.1:99999/", "http://", ""}) {
        Transfer transfer(url);
        const Outcome outcome = worker.run(transfer);
        EXPECT_FALSE(outcome.success) << url;
        EXPECT_EQ(outcome.code, 3) << url;
        EXPECT_FALSE(outcome.error.empty()) << url;
        EXPECT_EQ(outcome.times, 1) << url;
    }
}

TEST(AMultiHandle, GivesEachTransferItsOwnErrorText)
{
    Worker worker;
    Transfer refused("http://127.0.0.1:1/");
    Transfer scheme("gopher://127.0.0.1/");
    worker.run({&refused, &scheme});
    EXPECT_THAT(worker.outcome(refused).error, HasSubstr("127.0.0.1 port 1"));
    EXPECT_THAT(worker.outcome(scheme).error, HasSubstr("gopher"));
}

TEST(AMultiHandle, TakesHandlesFromManyThreadsWhileItWorks)
{
    constexpr int kThreads = 8;
    constexpr int kEach = 250;
    TestServer server(test::always("ok"));
    std::vector<std::vector<std::unique_ptr<Transfer>>> transfers;
    Worker worker;
    for (int i = 0; i < kThreads; ++i) {
        transfers.push_back(several(kEach, i % 2 == 0 ? server.url() : "http://bad host/"));
    }
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (auto& mine : transfers) {
        threads.emplace_back([&worker, &mine, &refused] {
            for (auto& transfer : mine) {
                refused += worker.multi.addHandle(&transfer->easy) ? 0 : 1;
            }
        });
    }
    int done = 0;
    int succeeded = 0;
    const auto start = Clock::now();
    while (done < kThreads * kEach && secondsSince(start) < 60) {
        int running = 0;
        ASSERT_TRUE(worker.multi.fdSelect(running));
        for (Message m = readOne(worker.multi); m.pEasyHandle != nullptr;
             m = readOne(worker.multi)) {
            ++done;
            succeeded += m.bSuccess ? 1 : 0;
            ASSERT_TRUE(worker.multi.removeHandle(m.pEasyHandle));
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(done, kThreads * kEach);
    EXPECT_EQ(succeeded, kThreads * kEach / 2);
}

TEST(AMultiHandle, WakesForAHandleThatIsAddedDuringTheWait)
{
    TestServer server([](Connection& connection) {
        Request request;
        while (connection.read(request)) {
            if (!request.has("GET /hang")) {
                connection.answer("ok");
            }
        }
    });
    Transfer hanging(server.url() + "/hang");
    Transfer late(server.url());
    Worker worker;
    ASSERT_TRUE(worker.multi.addHandle(&hanging.easy));
    int running = 0;
    while (server.requests().empty()) {
        ASSERT_TRUE(worker.multi.fdSelect(running));
    }
    double fastest = 100;
    for (int i = 0; i < 5; ++i) {
        std::thread adder([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            EXPECT_TRUE(worker.multi.addHandle(&late.easy));
        });
        const auto start = Clock::now();
        while (readOne(worker.multi).pEasyHandle == nullptr) {
            ASSERT_TRUE(worker.multi.fdSelect(running));
        }
        fastest = std::min(fastest, secondsSince(start));
        adder.join();
        ASSERT_TRUE(worker.multi.removeHandle(&late.easy));
    }
    EXPECT_LT(fastest, 0.6) << "a wait that nobody ends lasts a second";
}

/// Stops a worker that waits for ten answers.
/// @return seconds from the stop to the end of the wait
double stops(TestServer& server)
{
    auto transfers = several(10, server.url());
    Worker worker;
    for (auto& transfer : transfers) {
        EXPECT_TRUE(worker.multi.addHandle(&transfer->easy));
    }
    const std::size_t before = server.requests().size();
    int running = 0;
    while (server.requests().size() < before + transfers.size()) {
        EXPECT_TRUE(worker.multi.fdSelect(running));
    }
    Clock::time_point stopped;
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        stopped = Clock::now();
        worker.multi.Stop();
    });
    while (running > 0) {
        EXPECT_TRUE(worker.multi.fdSelect(running));
    }
    stopper.join();
    const double took = secondsSince(stopped);
    EXPECT_TRUE(worker.multi.Perform(running));
    EXPECT_EQ(running, 0);
    EXPECT_FALSE(worker.multi.addHandle(&transfers[0]->easy));
    return took;
}

TEST(AStoppedMultiHandle, LeavesItsWaitAtOnceAndHandsNothingOut)
{
    TestServer server(hang);
    // The stop comes 50 ms after the wait's begin, so that a wait without an early end lasts nearly a second.
    double fastest = 100;
    for (int i = 0; i < 5; ++i) {
        fastest = std::min(fastest, stops(server));
    }
    EXPECT_LT(fastest, 0.6);
}

TEST(AStoppedMultiHandle, KeepsAFinishedTransferToItself)
{
    TestServer server(test::always("ok"));
    Transfer transfer(server.url());
    Worker worker;
    ASSERT_TRUE(worker.multi.addHandle(&transfer.easy));
    int running = 0;
    do {
        ASSERT_TRUE(worker.multi.fdSelect(running));
    } while (readOne(worker.multi).pEasyHandle == nullptr);
    ASSERT_TRUE(worker.multi.fdSelect(running));
    worker.multi.Stop();
    EXPECT_EQ(readOne(worker.multi).pEasyHandle, nullptr);
    EXPECT_TRUE(worker.multi.fdSelect(running));
    EXPECT_EQ(running, 0);
    EXPECT_EQ(readOne(worker.multi).pEasyHandle, nullptr);
    EXPECT_TRUE(worker.multi.removeHandle(&transfer.easy)) << "what was claimed before ends well";
}

TEST(AMultiHandle, IsDestroyedQuicklyWithTransfersUnderWay)
{
    TestServer server(hang);
    auto transfers = several(10, server.url());
    Transfer stuck("http://stuck.test/");
    Transfer pending(server.url());
    auto worker = std::make_unique<Worker>();
    for (auto& transfer : transfers) {
        ASSERT_TRUE(worker->multi.addHandle(&transfer->easy));
    }
    ASSERT_TRUE(worker->multi.addHandle(&stuck.easy));
    int running = 0;
    while (server.requests().size() < transfers.size() || !g_resolverStuck) {
        ASSERT_TRUE(worker->multi.fdSelect(running));
    }
    ASSERT_TRUE(worker->multi.addHandle(&pending.easy));
    const auto start = Clock::now();
    worker->multi.Stop();
    worker.reset();
    EXPECT_LT(secondsSince(start), 4.0) << "the look-up itself takes eight seconds";
    EXPECT_EQ(transfers[0]->easy.getLastError(), "") << "the handles are still their owner's";
}

TEST(AMultiHandle, LetsGoOfTransfersThatWaitForASlotWhenItIsDestroyed)
{
    // More than go to one host at once. A URL without a host has no leader that goes first.
    auto transfers = several(40, "no address");
    {
        Worker worker;
        int running = 0;
        for (auto& transfer : transfers) {
            ASSERT_TRUE(worker.multi.addHandle(&transfer->easy));
        }
        EXPECT_TRUE(worker.multi.Perform(running));
    }
    Worker other;
    for (auto& transfer : transfers) {
        EXPECT_TRUE(other.multi.addHandle(&transfer->easy));
    }
}

TEST(AMultiHandle, IsNotHeldUpByAStuckNameLookUp)
{
    TestServer server(test::always("ok"));
    Transfer stuck("http://stuck.test/");
    ASSERT_TRUE(stuck.easy.setOption(MZCURL_OPT_CONNECTTIMEOUT, 1));
    Transfer quick(server.url());
    Worker worker;
    g_resolverStuck = false;
    ASSERT_TRUE(worker.multi.addHandle(&stuck.easy));
    int running = 0;
    while (!g_resolverStuck) {
        ASSERT_TRUE(worker.multi.fdSelect(running));
    }
    const auto start = Clock::now();
    EXPECT_TRUE(worker.run(quick).success);
    EXPECT_EQ(worker.outcome(stuck).times, 1);
    EXPECT_FALSE(worker.outcome(stuck).success);
    EXPECT_LT(secondsSince(start), 4.0) << "the look-up itself takes eight seconds";
}

}  // namespace
