// report_test.cpp - the log lines of a transfer.
#include "platform_double.h"
#include "test_server.h"
#include "transfers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using test::Connection;
using test::Request;
using test::TestServer;
using test::Transfer;
using test::Worker;

TEST(AMultiHandle, ReportsEachTransferAtItsEnd)
{
    TestServer server([](Connection& connection) {
        Request request;
        while (connection.read(request)) {
            connection.write(!request.has("missing")
                                 ? "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody"
                                 : "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
        }
    });
    Worker worker;
    takeLog();
    for (const char* const path : {"/there", "/missing"}) {
        Transfer transfer(server.url() + path);
        worker.run(transfer);
    }
    const std::vector<std::string> lines = takeLog();
    ASSERT_EQ(lines.size(), 2U);
    const std::string times =
        ", name [0-9]+ us, connect [0-9]+ us, TLS 0 us, first byte [0-9]+ us, whole [0-9]+ us, ";
    EXPECT_THAT(lines[0],
                testing::MatchesRegex(
                    "D transfer 1: http://[^,]*/there, curl 0, HTTP 200, new connections 1" +
                    times + "4 bytes"));
    EXPECT_THAT(lines[1],
                testing::MatchesRegex(
                    "W transfer 2: http://[^,]*/missing, curl 0, HTTP 404, new connections 0" +
                    times + "0 bytes"));
}

}  // namespace
