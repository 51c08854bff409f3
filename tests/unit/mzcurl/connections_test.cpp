// connections_test.cpp - idle connections: which ones a new request uses.
#include "platform_double.h"
#include "test_certificates.h"
#include "test_server.h"
#include "transfers.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <thread>

namespace {

std::atomic<long> g_standby{0};  ///< seconds that the device has slept
std::atomic<bool> g_endsAreUnknown{false};
std::atomic<bool> g_endsAreAskedSlowly{false};  ///< a server's reset gets 200 ms to arrive
std::atomic<bool> g_portIsTheSame{false};

template <class Function>
Function original(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

/// Replaces the C library's function: only this clock goes on in standby.
extern "C" int clock_gettime(clockid_t clock, timespec* result) noexcept
{
    static const auto real = original<int (*)(clockid_t, timespec*)>("clock_gettime");
    const int status = real(clock, result);
    if (status == 0 && clock == CLOCK_BOOTTIME) {
        result->tv_sec += g_standby;
    }
    return status;
}

/// Replaces the C library's function: libcurl does not know a connection's own address while it fails. The wrapper asks
/// for it between the handshake and the first request.
extern "C" int getsockname(int descriptor, sockaddr* address, socklen_t* length) noexcept
{
    static const auto real = original<int (*)(int, sockaddr*, socklen_t*)>("getsockname");
    if (g_endsAreAskedSlowly) {
        pollfd ended{descriptor, POLLRDHUP, 0};
        poll(&ended, 1, 200);
    }
    const int status = g_endsAreUnknown ? -1 : real(descriptor, address, length);
    if (g_portIsTheSame && address->sa_family == AF_INET) {
        reinterpret_cast<sockaddr_in*>(address)->sin_port = 1;
    }
    return status;
}

namespace {

using test::Connection;
using test::Request;
using test::TestServer;
using test::Transfer;
using test::Worker;

bool hasIpv6()
{
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const int descriptor = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool has =
        bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(descriptor);
    return has;
}

class AnIdleConnection : public testing::Test {
protected:
    AnIdleConnection() { authority.writeTo(caFile); }
    ~AnIdleConnection() override
    {
        g_endsAreUnknown = false;
        g_endsAreAskedSlowly = false;
        g_portIsTheSame = false;
    }

    void get(const TestServer& server, const std::string& path = "/")
    {
        Transfer transfer(server.url() + path, caFile);
        EXPECT_TRUE(worker.run(transfer).success) << worker.outcome(transfer).error;
    }

    test::TemporaryFolder folder;
    const std::string caFile = folder.path("ca.pem");
    const test::CertificateAuthority authority;
    const test::Identity identity = authority.issue("IP:127.0.0.1,IP:127.0.0.2,IP:::1");
    Worker worker;
};

TEST_F(AnIdleConnection, IsNotUsedAfterAStandby)
{
    TestServer server(test::always("ok"), {&identity});
    get(server);
    get(server);
    g_standby += 1;
    get(server);
    EXPECT_EQ(server.connections(), 1) << "so short a difference of the clocks is no standby";
    g_standby += 3;
    get(server);
    EXPECT_EQ(server.connections(), 2);
    get(server);
    EXPECT_EQ(server.connections(), 2) << "the new one is younger than the standby";
}

TEST_F(AnIdleConnection, OverIpv6IsNotUsedAfterAChangeOfTheNetwork)
{
    if (!hasIpv6()) {
        GTEST_SKIP() << "no socket can have the address ::1 here (a container without IPv6)";
    }
    test::ServerOptions options{&identity};
    options.overIpv6 = true;
    TestServer server(test::always("ok"), options);
    get(server);
    get(server);
    EXPECT_EQ(server.connections(), 1);
    changeNetwork();
    get(server);
    EXPECT_EQ(server.connections(), 2);
}

TEST_F(AnIdleConnection, IsUsedAfterTheServerHasClosedAnother)
{
    TestServer server(
        [](Connection& connection) {
            Request request;
            while (connection.read(request)) {
                // The delay makes two transfers need two connections.
                std::this_thread::sleep_for(std::chrono::milliseconds(500));
                connection.answer("ok");
                if (request.has("GET /closing")) {
                    connection.end();
                    return;
                }
            }
        },
        {&identity});
    Transfer closing(server.url() + "/closing", caFile);
    Transfer staying(server.url() + "/staying", caFile);
    worker.run({&closing, &staying});
    EXPECT_EQ(server.connections(), 2);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    Transfer third(server.url() + "/third", caFile);
    Transfer fourth(server.url() + "/fourth", caFile);
    worker.run({&third, &fourth});
    EXPECT_EQ(server.connections(), 3);
}

TEST_F(AnIdleConnection, IsWatchedWhileItsTransferIsNotTakenOut)
{
    TestServer server(test::always("ok"), {&identity});
    Transfer first(server.url() + "/first", caFile);
    Transfer second(server.url() + "/second", caFile);
    int running = 0;
    const auto await = [&](Transfer& transfer) {
        ASSERT_TRUE(worker.multi.addHandle(&transfer.easy));
        MZCurl::MZCurlEasy* ended = nullptr;
        while (ended != &transfer.easy) {
            ASSERT_TRUE(worker.multi.fdSelect(running));
            ended = test::readOne(worker.multi).pEasyHandle;
        }
    };
    await(first);
    ASSERT_TRUE(worker.multi.fdSelect(running));
    changeNetwork();
    await(second);
    EXPECT_EQ(server.connections(), 2);
    EXPECT_TRUE(worker.multi.removeHandle(&first.easy));
    EXPECT_TRUE(worker.multi.removeHandle(&second.easy));
}

using ANewConnection = AnIdleConnection;

/// Ends the connection after GET /last.
void answerAll(Connection& connection)
{
    Request request;
    while (connection.read(request)) {
        connection.write(request.has("GET /last")
                             ? "HTTP/1.1 204 Nothing\r\nConnection: close\r\n\r\n"
                             : "HTTP/1.1 204 Nothing\r\n\r\n");
    }
}

TEST_F(AnIdleConnection, IsWatchedBesideAnUnknownOne)
{
    TestServer unknown(answerAll, {&identity});
    TestServer server(test::always("ok"), {&identity});
    g_endsAreUnknown = true;
    get(unknown);
    g_endsAreUnknown = false;
    get(server);
    changeNetwork();
    get(server);
    EXPECT_EQ(server.connections(), 2);
    get(unknown, "/last");
    EXPECT_EQ(unknown.connections(), 1) << "an unknown connection cannot be watched";
    get(unknown);
    changeNetwork();
    get(unknown);
    EXPECT_EQ(unknown.connections(), 3) << "its successor can";
}

/// Resets a connection, as a server does that restarts.
void reset(SSL* ssl)
{
    const sockaddr noPeer{AF_UNSPEC, {}};
    connect(SSL_get_fd(ssl), &noPeer, sizeof noPeer);
}

/// @param which whether a connection is reset; the first one has the number 1
TestServer::Handler resetting(bool (*which)(int number))
{
    return [which, connections = std::make_shared<std::atomic<int>>(0)](Connection& connection) {
        if (which(++*connections)) {
            reset(connection.ssl());
        } else {
            answerAll(connection);
        }
    };
}

bool isFirst(int number)
{
    return number == 1;
}

TEST_F(ANewConnection, ThatIsResetBeforeItsFirstRequestIsMadeAgain)
{
    TestServer server(resetting([](int number) { return number % 3 != 0; }), {&identity});
    g_endsAreAskedSlowly = true;
    Transfer list(server.url() + "/list", caFile);
    EXPECT_TRUE(worker.run(list).success) << worker.outcome(list).error;
    EXPECT_EQ(server.connections(), 3);
    Transfer purchase(server.url() + "/purchase", caFile);
    purchase.sending("once");
    EXPECT_TRUE(worker.run(purchase).success) << worker.outcome(purchase).error;
    EXPECT_EQ(server.connections(), 6);
    EXPECT_EQ(server.requests().size(), 2U) << "no request came with a connection that was reset";
}

std::string addressedAs(const std::string& address, const TestServer& server)
{
    return "https://" + address + ":" + std::to_string(server.port());
}

/// Delays the second handshake.
int delaySecond(SSL*, int*, void* handshakes)
{
    if (++*static_cast<std::atomic<int>*>(handshakes) == 2) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    }
    return SSL_CLIENT_HELLO_SUCCESS;
}

TEST_F(ANewConnection, ThatIsResetIsMadeAgainBesideOneInItsHandshake)
{
    std::atomic<int> handshakes{0};
    test::ServerOptions options{&identity};
    options.everywhere = true;
    options.adjust = [&handshakes](SSL_CTX* context) {
        SSL_CTX_set_client_hello_cb(context, delaySecond, &handshakes);
    };
    TestServer server(resetting(isFirst), options);
    g_endsAreAskedSlowly = true;
    Transfer one(server.url(), caFile);
    Transfer another(addressedAs("127.0.0.2", server), caFile);
    worker.run({&one, &another});
    EXPECT_TRUE(worker.outcome(one).success) << worker.outcome(one).error;
    EXPECT_TRUE(worker.outcome(another).success) << worker.outcome(another).error;
    EXPECT_EQ(server.connections(), 3);
}

/// The kernel uses a local port again for another remote address.
TEST_F(ANewConnection, ToAnotherAddressFromTheSamePortIsNotTakenForAKeptOne)
{
    test::ServerOptions options{&identity};
    options.everywhere = true;
    TestServer server(
        [](Connection& connection) {
            Request request;
            while (connection.read(request) && !request.has("GET /last")) {
                connection.answer("ok");
            }
        },
        options);
    g_portIsTheSame = true;
    get(server);
    Transfer last(addressedAs("127.0.0.2", server) + "/last", caFile);
    EXPECT_FALSE(worker.run(last).success);
    EXPECT_EQ(server.connections(), 2) << "the end of a connection's first request is no loss";
}

void installNothing(void*, void*) {}

TEST_F(ANewConnection, ThatIsResetForWantOfACertificateIsNotMadeAgain)
{
    TestServer server([](Connection& connection) { reset(connection.ssl()); }, {&identity});
    g_endsAreAskedSlowly = true;
    Transfer list(server.url() + "/list", caFile);
    EXPECT_TRUE(list.easy.setOption(MZCurl::MZCURL_OPT_SSL_CTX_FUNCTION, &installNothing));
    EXPECT_FALSE(worker.run(list).success);
    EXPECT_NE(worker.outcome(list).error, "The connection has ended");
    EXPECT_EQ(server.connections(), 1);
}

/// Resets a connection in its handshake when the number has come down to 0.
int resetInHandshake(SSL* ssl, int*, void* handshakesUntil)
{
    if ((*static_cast<int*>(handshakesUntil))-- != 0) {
        return SSL_CLIENT_HELLO_SUCCESS;
    }
    reset(ssl);
    return SSL_CLIENT_HELLO_ERROR;
}

TEST_F(ANewConnection, ThatIsResetInTheHandshakeAfterAKeptOneWasLostIsMadeAgainForAGet)
{
    int handshakesUntil = 1;
    test::ServerOptions options{&identity};
    options.adjust = [&handshakesUntil](SSL_CTX* context) {
        SSL_CTX_set_client_hello_cb(context, resetInHandshake, &handshakesUntil);
    };
    std::atomic<int> requests{0};
    TestServer server(
        [&requests](Connection& connection) {
            Request request;
            while (connection.read(request) && ++requests != 2) {
                connection.answer("ok");
            }
        },
        options);
    get(server);
    get(server);
    EXPECT_EQ(requests, 3) << "the second one was lost with its connection";
    EXPECT_EQ(server.connections(), 3);
}

/// Chooses HTTP/2 once.
int chooseHttp2Once(SSL*, const unsigned char** chosen, unsigned char* size, const unsigned char*,
                    unsigned, void* count)
{
    const bool first = (*static_cast<int*>(count))++ == 0;
    *chosen = reinterpret_cast<const unsigned char*>(first ? "h2" : "http/1.1");
    *size = first ? 2 : 8;
    return SSL_TLSEXT_ERR_OK;
}

TEST_F(ANewConnection, ThatIsResetBeforeItsFirstRequestInHttp2IsMadeAgainForAGet)
{
    int choices = 0;
    test::ServerOptions options{&identity};
    options.adjust = [&choices](SSL_CTX* context) {
        SSL_CTX_set_alpn_select_cb(context, chooseHttp2Once, &choices);
    };
    TestServer server(resetting(isFirst), options);
    g_endsAreAskedSlowly = true;
    Transfer list(server.url() + "/list", caFile);
    EXPECT_TRUE(worker.run(list).success) << worker.outcome(list).error;
    EXPECT_EQ(server.connections(), 2);
}

}  // namespace
