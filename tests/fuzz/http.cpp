// http.cpp - a server's answer to the curl wrapper. The input is all bytes that the server sends before it
// closes the connection.
#include "fuzz.h"
#include "mzcurl/transfers.h"
#include "test_server.h"

#include <atomic>
#include <csignal>
#include <memory>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // The server may still write it when the wrapper has read enough and the next input comes.
    static std::shared_ptr<const std::string> pShared;
    static test::TestServer server(
        [](test::Connection& connection) {
            test::Request request;
            if (connection.read(request)) {
                connection.write(*std::atomic_load(&pShared));
                connection.end();
            }
        },
        {nullptr, 0, false});
    static test::Worker worker;
    const std::string strAnswer = fuzz::text(data, size);
    std::atomic_store(&pShared, std::make_shared<const std::string>(strAnswer));

    test::Transfer transfer(server.url() + "/");
    const test::Outcome outcome = worker.run(transfer);

    FUZZ_REQUIRE(outcome.times == 1);
    FUZZ_REQUIRE(transfer.body.size() <= size);
    FUZZ_REQUIRE(outcome.success == (outcome.code == 0));
    // The body is a part of the answer; a chunked body consists of several parts.
    const bool bChunked = strAnswer.find("hunked") != std::string::npos;
    FUZZ_REQUIRE(bChunked || strAnswer.find(transfer.body) != std::string::npos);
    return 0;
}
