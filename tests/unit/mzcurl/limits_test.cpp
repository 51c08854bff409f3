// limits_test.cpp - limits on a server's answer, and results of the function that reads the body.
#include "test_server.h"
#include "transfers.h"

#include <platform/MZCurl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using namespace MZCurl;
using test::Connection;
using test::Outcome;
using test::Request;
using test::TestServer;
using test::Transfer;
using test::Worker;
using testing::HasSubstr;

constexpr std::size_t kLimit = 33554375;
constexpr int kWriteError = 23;

const char* const kOk = "HTTP/1.1 200 OK\r\n";

/// Answers the first request with a text and then repeats another text until the client closes.
TestServer::Handler endless(const std::string& start, const std::string& repeated)
{
    return [start, repeated](Connection& connection) {
        Request request;
        connection.read(request);
        connection.write(start);
        while (connection.write(repeated)) {
        }
    };
}

/// One chunk of a chunked body.
std::string chunk(std::size_t size)
{
    char head[32];
    static_cast<void>(std::snprintf(head, sizeof head, "%zx\r\n", size));
    return head + std::string(size, 'x') + "\r\n";
}

class ALimitedTransfer : public testing::Test {
protected:
    Outcome get(TestServer& server)
    {
        Transfer transfer(server.url());
        const Outcome outcome = worker.run(transfer);
        body.swap(transfer.body);
        return outcome;
    }

    Worker worker;
    std::string body;
};

TEST_F(ALimitedTransfer, TakesTheLargestBodyThatTheBusCanCarry)
{
    const std::string largest(kLimit, 'x');
    TestServer server(test::always(largest));
    EXPECT_TRUE(get(server).success);
    EXPECT_TRUE(body == largest);
}

TEST_F(ALimitedTransfer, FailsABodyThatIsOneByteLonger)
{
    TestServer server(test::always(std::string(kLimit + 1, 'x')));
    const Outcome outcome = get(server);
    EXPECT_EQ(outcome.code, kWriteError);
    EXPECT_THAT(outcome.error, HasSubstr("larger than 33554375 bytes"));
    EXPECT_LE(body.size(), kLimit);
}

TEST_F(ALimitedTransfer, CutsOffAChunkedBodyThatNeverEnds)
{
    TestServer server(
        endless(std::string(kOk) + "Transfer-Encoding: chunked\r\n\r\n", chunk(65536)));
    EXPECT_EQ(get(server).code, kWriteError);
    EXPECT_LE(body.size(), kLimit);
}

TEST_F(ALimitedTransfer, CutsOffABodyWithoutLengthThatNeverEnds)
{
    TestServer server(endless(std::string(kOk) + "\r\n", std::string(65536, 'x')));
    EXPECT_EQ(get(server).code, kWriteError);
    EXPECT_LE(body.size(), kLimit);
}

TEST_F(ALimitedTransfer, DeliversAPieceBeforeTheNextOneComes)
{
    std::atomic<bool> isHalfRead{false};
    TestServer server([&isHalfRead](Connection& connection) {
        Request request;
        connection.read(request);
        connection.write(std::string(kOk) + "Content-Length: 8\r\n\r\nhalf");
        for (int i = 0; i < 500 && !isHalfRead; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        connection.write(isHalfRead ? "rest" : "late");
    });
    Transfer transfer(server.url());
    struct Reader {
        std::atomic<bool>* isHalfRead;
        std::string* body;
    } reader{&isHalfRead, &transfer.body};
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_WRITEDATA, &reader));
    ASSERT_TRUE(transfer.easy.setOption(
        MZCURL_OPT_WRITEFUNCTION,
        WriteCallback([](char* data, unsigned int size, unsigned int count, void* pointer) {
            const Reader& own = *static_cast<Reader*>(pointer);
            *own.isHalfRead = true;
            return test::appendBody(data, size, count, own.body);
        })));
    EXPECT_TRUE(worker.run(transfer).success);
    EXPECT_EQ(transfer.body, "halfrest");
}

TEST_F(ALimitedTransfer, CountsAnew)
{
    TestServer server(test::always(std::string(kLimit / 2 + 1, 'x')));
    Transfer transfer(server.url());
    for (int i = 0; i < 3; ++i) {
        transfer.body.clear();
        EXPECT_TRUE(worker.run(transfer).success);
    }
}

std::string headerLines(std::size_t total)
{
    const std::string line = "X-Filler: " + std::string(1012, 'x') + "\r\n";
    std::string text;
    while (text.size() < total) {
        text += line;
    }
    return text;
}

TEST_F(ALimitedTransfer, TakesManyHeaders)
{
    TestServer server([](Connection& connection) {
        Request request;
        connection.read(request);
        connection.write(kOk + headerLines(290 * 1024) + "Content-Length: 2\r\n\r\nok");
    });
    EXPECT_TRUE(get(server).success);
    EXPECT_EQ(body, "ok");
}

TEST_F(ALimitedTransfer, TakesHeadersOf300KibAndNotOneByteMore)
{
    constexpr std::size_t kHeaders = std::size_t{300} * 1024;
    for (const std::size_t size : {kHeaders, kHeaders + 1}) {
        TestServer server([size](Connection& connection) {
            Request request;
            connection.read(request);
            std::string text = kOk + headerLines(kHeaders - 4096) + "Connection: close\r\nLast: ";
            text.append(size - text.size() - 4, 'x').append("\r\n\r\n");
            connection.write(text + "body");
        });
        EXPECT_EQ(get(server).success, size == kHeaders) << size;
    }
}

TEST_F(ALimitedTransfer, CutsOffHeadersTrailersAndInterimResponsesThatNeverEnd)
{
    const std::string chunked =
        std::string(kOk) + "Transfer-Encoding: chunked\r\n\r\n" + chunk(5) + "0\r\n";
    const struct {
        std::string start;
        std::string repeated;
    } cases[] = {
        {kOk, headerLines(1)},
        {chunked, headerLines(1)},
        {"", "HTTP/1.1 100 Continue\r\n" + headerLines(1) + "\r\n"},
    };
    for (const auto& hostile : cases) {
        TestServer server(endless(hostile.start, hostile.repeated));
        const Outcome outcome = get(server);
        EXPECT_EQ(outcome.code, kWriteError) << hostile.start;
        EXPECT_THAT(outcome.error, HasSubstr("300 KiB of headers")) << hostile.start;
    }
}

TEST_F(ALimitedTransfer, DecompressesNothing)
{
    TestServer server([](Connection& connection) {
        Request request;
        connection.read(request);
        connection.write(std::string(kOk) + "Content-Encoding: gzip\r\nContent-Length: 3\r\n\r\n" +
                         "\x1f\x8b\x08");
    });
    EXPECT_TRUE(get(server).success);
    EXPECT_EQ(body, "\x1f\x8b\x08");
}

unsigned int readNothing(char*, unsigned int, unsigned int, void*)
{
    return 0;
}

unsigned int askForAPause(char*, unsigned int, unsigned int, void*)
{
    return 0x10000001;  // CURL_WRITEFUNC_PAUSE, which would pause the transfer for ever
}

unsigned int throwSomething(char*, unsigned int, unsigned int, void*)
{
    throw std::length_error("no room");
}

TEST_F(ALimitedTransfer, FailsWhenItsReaderDoesNotTakeTheBody)
{
    TestServer server(test::always("body"));
    for (const WriteCallback reader : {readNothing, askForAPause}) {
        Transfer transfer(server.url());
        ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_WRITEFUNCTION, reader));
        const Outcome outcome = worker.run(transfer);
        EXPECT_EQ(outcome.code, kWriteError);
        EXPECT_THAT(outcome.error, HasSubstr("refused by its reader"));
    }
}

TEST_F(ALimitedTransfer, FailsWhenItsReaderThrows)
{
    TestServer server(test::always("body"));
    Transfer transfer(server.url());
    ASSERT_TRUE(transfer.easy.setOption(MZCURL_OPT_WRITEFUNCTION, throwSomething));
    EXPECT_EQ(worker.run(transfer).code, kWriteError);
    EXPECT_FALSE(transfer.easy.send());
    EXPECT_THAT(transfer.easy.getLastError(), HasSubstr("reader of the response failed"));
}

}  // namespace
