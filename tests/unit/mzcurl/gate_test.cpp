// gate_test.cpp - one transfer goes first to a host without connections; the others wait for it, with a time
// limit.
#include "curl/queue/gate.h"

#include "curl/queue/quotas.h"
#include "test_server.h"
#include "transfers.h"

#include <platform/MZCurl.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace MZCurl;
using test::Clock;
using test::Connection;
using test::Request;
using test::secondsSince;
using test::TestServer;
using test::Transfer;
using test::Worker;

void hang(Connection& connection)
{
    Request request;
    while (connection.read(request)) {
    }
}

/// Answers every request except those for a hanging path.
void hangOnRequest(Connection& connection)
{
    Request request;
    while (connection.read(request)) {
        if (!request.has("/hang")) {
            connection.answer("ok");
        }
    }
}

/// Many transfers to few hosts on one worker.
class Burst {
public:
    explicit Burst(std::string caFile) : m_caFile(std::move(caFile)) {}

    Transfer& add(const std::string& url, int count = 1)
    {
        for (int i = 0; i < count; ++i) {
            m_transfers.push_back(std::make_unique<Transfer>(url, m_caFile));
            EXPECT_TRUE(worker.multi.addHandle(&m_transfers.back()->easy));
        }
        return *m_transfers.back();
    }

    void remove(Transfer& transfer) { EXPECT_TRUE(worker.multi.removeHandle(&transfer.easy)); }

    /// Runs the loop for that time, or until that many transfers have ended and been removed.
    /// @return number of ended transfers
    int runFor(double seconds, int enough = 1000000)
    {
        const auto start = Clock::now();
        int ended = 0;
        while (ended < enough && secondsSince(start) < seconds) {
            // A transfer that fails at once keeps the wait of the loop short.
            Transfer ticker("no address");
            EXPECT_TRUE(worker.multi.addHandle(&ticker.easy));
            int ignored = 0;
            EXPECT_TRUE(worker.multi.fdSelect(ignored));
            remove(ticker);
            MZCurlMulti::MultiMsg message;
            while (worker.multi.InfoRead(message) && message.pEasyHandle != nullptr) {
                succeeded += message.bSuccess ? 1 : 0;
                ++ended;
                EXPECT_TRUE(worker.multi.removeHandle(message.pEasyHandle));
            }
        }
        return ended;
    }

    int running()
    {
        int count = 0;
        EXPECT_TRUE(worker.multi.Perform(count));
        return count;
    }

    int succeeded = 0;

private:
    std::string m_caFile;
    std::vector<std::unique_ptr<Transfer>> m_transfers;

public:
    Worker worker;  // declared last: destroyed before the transfers that it may still hold
};

// The gate is shut for a second at most. A busy machine may spoil one attempt to see something happen before
// that second is over; a broken gate fails all three.
bool inOneOfThree(const std::function<bool()>& attempt)
{
    return attempt() || attempt() || attempt();
}

// TLS 1.2: its sessions can be resumed as soon as the handshake is over.
class ABurst : public testing::Test {
protected:
    ABurst() { authority.writeTo(caFile); }

    /// The address of a server that accepts a connection and sends nothing. The client's handshake stays
    /// unfinished.
    static std::string silent(const TestServer& server)
    {
        return "https://127.0.0.1:" + std::to_string(server.port());
    }

    test::TemporaryFolder folder;
    const std::string caFile = folder.path("ca.pem");
    const test::CertificateAuthority authority;
    const test::Identity identity = authority.issue();
};

TEST(TheKeyOfAHost, IsTheSameForWhateverIsAskedOfIt)
{
    HostKey key;
    const std::string first = *key.of("https://store.test/a?b=c");
    EXPECT_EQ(*key.of("https://store.test/b"), first);
    EXPECT_EQ(*key.of("https://store.test"), first);
    EXPECT_EQ(*key.of("https://store.test?q=https://other.test/"), first);
    EXPECT_EQ(*key.of("https://store.test:443/a"), first);
}

TEST(TheKeyOfAHost, TellsHostsPortsAndSchemesApart)
{
    HostKey key;
    std::set<std::string> keys;
    const std::vector<std::string> urls{"https://store.test/",      "https://store.tes/t",
                                        "https://store.test:8443/", "http://store.test/",
                                        "https://store.test.more/", "https://store.test@other/"};
    for (const std::string& url : urls) {
        keys.insert(*key.of(url));
    }
    EXPECT_EQ(keys.size(), urls.size());
}

TEST(TheKeyOfAHost, IsEmptyForWhatIsNoUrlWhateverCameBefore)
{
    HostKey key;
    const std::string good = *key.of("https://store.test/a");
    EXPECT_NE(good, "");
    EXPECT_EQ(*key.of("https://store.test/a b"), "");
    EXPECT_EQ(*key.of("https://store.test/a\x7f"), "");
    EXPECT_EQ(*key.of("https://store.test/a"), good);
    EXPECT_EQ(*key.of(""), "");
}

TEST(AGate, KeepsAHostWithTransfersWhenItForgetsOthers)
{
    const auto now = Gate::Clock::now();
    Gate gate;
    TransferList active;
    TransferList freed;
    std::vector<std::unique_ptr<MZCurl::Transfer>> made;
    const auto enter = [&](const std::string& host) {
        made.push_back(std::make_unique<MZCurl::Transfer>());
        MZCurl::Place& place = made.back()->place;
        place.hostKey = std::make_shared<const std::string>(host);
        place.home = &active;
        place.node = active.insert(active.end(), made.back().get());
        return gate.enter(*made.back(), now);
    };
    for (std::size_t i = 0; i < 2 * kRemembered; ++i) {
        EXPECT_TRUE(enter(std::to_string(i)));
    }
    for (const auto& transfer : made) {
        gate.leave(*transfer);
    }
    EXPECT_TRUE(enter("host"));
    MZCurl::Transfer& leader = *made.back();
    EXPECT_FALSE(enter("host"));
    MZCurl::Transfer& second = *made.back();
    gate.leave(leader);
    gate.release(freed, now);
    EXPECT_EQ(freed, TransferList{&second});
}

TEST_F(ABurst, OfAHundredToAColdHostCostsOneFullHandshake)
{
    TestServer server(
        [](Connection& connection) {
            Request request;
            while (connection.read(request)) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                connection.answer("ok");
            }
        },
        {&identity, TLS1_2_VERSION});
    Burst burst(caFile);
    burst.add(server.url(), 100);
    EXPECT_EQ(burst.runFor(30, 100), 100);
    EXPECT_EQ(burst.succeeded, 100);
    EXPECT_EQ(server.fullHandshakes(), 1);
    EXPECT_GT(server.resumedHandshakes(), 0);
}

TEST_F(ABurst, WaitsForTheHandshakeAndNotForTheAnswer)
{
    EXPECT_TRUE(inOneOfThree([&] {
        TestServer server(hangOnRequest, {&identity, TLS1_2_VERSION});
        Burst burst(caFile);
        burst.add(server.url() + "/hang");
        burst.add(server.url(), 10);
        return burst.runFor(0.9, 10) == 10 && server.fullHandshakes() == 1;
    }));
}

TEST_F(ABurst, GoesAfterASecondWhenTheHandshakeHangs)
{
    EXPECT_TRUE(inOneOfThree([&] {
        TestServer server(hang);
        Burst burst(caFile);
        const auto start = Clock::now();
        burst.add(silent(server), 10);
        burst.runFor(0.5);
        const bool waited = server.connections() == 1 && burst.running() == 10;
        // No other event ends the wait, so its own time limit has to.
        int running = 0;
        while (server.connections() < 10 && secondsSince(start) < 10) {
            EXPECT_TRUE(burst.worker.multi.fdSelect(running));
        }
        return waited && secondsSince(start) >= 1.0 && secondsSince(start) < 2.2;
    }));
}

TEST_F(ABurst, GoesAtOnceWhenItsLeaderFails)
{
    EXPECT_TRUE(inOneOfThree([&] {
        // The server speaks no TLS.
        TestServer server([](Connection&) {});
        Burst burst(caFile);
        burst.add("https://127.0.0.1:" + std::to_string(server.port()) + "/", 10);
        return burst.runFor(0.9, 10) == 10 && burst.succeeded == 0;
    }));
}

TEST_F(ABurst, GoesAtOnceWhenItsLeaderHasFailedAndIsNotTakenOut)
{
    EXPECT_TRUE(inOneOfThree([&] {
        // The server speaks no TLS.
        TestServer server([](Connection&) {});
        Burst burst(caFile);
        const auto start = Clock::now();
        burst.add("https://127.0.0.1:" + std::to_string(server.port()) + "/", 5);
        int running = 0;
        while (server.connections() < 5) {
            EXPECT_TRUE(burst.worker.multi.fdSelect(running));
        }
        return secondsSince(start) < 0.9;
    }));
}

TEST_F(ABurst, GoesAtOnceWhenItsLeaderIsTakenOut)
{
    EXPECT_TRUE(inOneOfThree([&] {
        TestServer server(hang);
        Burst burst(caFile);
        Transfer& leader = burst.add(silent(server));
        burst.add(silent(server), 5);
        burst.runFor(0.3);
        const bool waited = server.connections() == 1;
        burst.remove(leader);
        burst.runFor(0.3);
        return waited && server.connections() == 6;
    }));
}

TEST_F(ABurst, HoldsNobodyUpWhoGoesElsewhere)
{
    EXPECT_TRUE(inOneOfThree([&] {
        TestServer hanging(hang);
        TestServer server(test::always("ok"), {&identity});
        Burst burst(caFile);
        burst.add(silent(hanging), 5);
        burst.add(server.url(), 5);
        return burst.runFor(0.9, 5) == 5 && burst.succeeded == 5 && hanging.connections() == 1;
    }));
}

TEST_F(ABurst, HasALeaderAgainOnceTheHostIsForgotten)
{
    EXPECT_TRUE(inOneOfThree([&] {
        TestServer server(hang);
        Burst burst(caFile);
        Transfer& first = burst.add(silent(server));
        Transfer& waiting = burst.add(silent(server));
        burst.runFor(0.2);
        burst.remove(waiting);
        burst.runFor(0.1);
        const bool waited = server.connections() == 1;
        burst.remove(first);
        burst.add(silent(server), 2);
        burst.runFor(0.3);
        return waited && server.connections() == 2 && burst.running() == 2;
    }));
}

TEST_F(ABurst, GoesAtOnceToAHostThatIsBeingTalkedTo)
{
    TestServer server(hangOnRequest, {&identity, TLS1_2_VERSION});
    Burst burst(caFile);
    burst.add(server.url() + "/hang");
    while (server.requests().empty()) {
        burst.runFor(0.01);
    }
    EXPECT_TRUE(inOneOfThree([&] {
        burst.add(server.url(), 5);
        return burst.runFor(0.9, 5) == 5;
    }));
}

TEST_F(ABurst, MayBeWaitingWhenItIsStoppedAndDestroyed)
{
    TestServer server(hang);
    Burst burst(caFile);
    burst.add(silent(server), 10);
    burst.runFor(0.2);
    EXPECT_EQ(burst.running(), 10);
    burst.worker.multi.Stop();
    EXPECT_EQ(burst.running(), 0);
}

}  // namespace
