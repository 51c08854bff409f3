// transfers.cpp - runs transfers like a worker.
#include "transfers.h"

#include <gtest/gtest.h>

namespace test {

using MZCurl::MZCurlMulti;

unsigned int appendBody(char* data, unsigned int size, unsigned int count, void* userdata)
{
    static_cast<std::string*>(userdata)->append(data, std::size_t{size} * count);
    return size * count;
}

Transfer::Transfer(const std::string& url, const std::string& caFile)
{
    EXPECT_TRUE(easy.Initialize());
    EXPECT_TRUE(easy.setOption(MZCurl::MZCURL_OPT_URL, url));
    EXPECT_TRUE(easy.setOption(MZCurl::MZCURL_OPT_TIMEOUT, 20));
    EXPECT_TRUE(easy.setOption(MZCurl::MZCURL_OPT_WRITEFUNCTION, appendBody));
    EXPECT_TRUE(easy.setOption(MZCurl::MZCURL_OPT_WRITEDATA, &body));
    if (caFile.empty()) {
        EXPECT_TRUE(easy.setOption(MZCurl::MZCURL_OPT_SSL_VERIFYPEER, 0));
        EXPECT_TRUE(easy.setOption(MZCurl::MZCURL_OPT_SSL_VERIFYHOST, 0));
    } else {
        EXPECT_TRUE(easy.setOption(MZCurl::MZCURL_OPT_CAINFO, caFile));
    }
}

Transfer& Transfer::sending(const std::string& text, const std::string& method)
{
    outgoing = text;
    if (method.empty()) {
        EXPECT_TRUE(easy.setOption(MZCurl::MZCURL_OPT_POST, 1));
    } else {
        EXPECT_TRUE(easy.setOption(MZCurl::MZCURL_OPT_CUSTOMREQUEST, method));
    }
    EXPECT_TRUE(easy.setOption(MZCurl::MZCURL_OPT_POSTFIELDS, outgoing));
    EXPECT_TRUE(
        easy.setOption(MZCurl::MZCURL_OPT_POSTFIELDSIZE, static_cast<long long>(outgoing.size())));
    EXPECT_TRUE(easy.setOption(MZCurl::MZCURL_OPT_HTTPHEADER, std::list<std::string>{"Expect:"}));
    return *this;
}

Worker::Worker()
{
    EXPECT_TRUE(multi.Initialize());
    multi.Start();
}

void Worker::run(const std::vector<Transfer*>& transfers)
{
    for (Transfer* const transfer : transfers) {
        m_outcomes.erase(&transfer->easy);
        EXPECT_TRUE(multi.addHandle(&transfer->easy));
    }
    int running = 0;
    do {
        EXPECT_TRUE(multi.fdSelect(running));
        MZCurlMulti::MultiMsg message;
        while (multi.InfoRead(message) && message.pEasyHandle != nullptr) {
            Outcome& outcome = m_outcomes[message.pEasyHandle];
            outcome = {message.bSuccess, message.iResult, message.strError, outcome.times + 1};
            EXPECT_TRUE(multi.removeHandle(message.pEasyHandle));
        }
    } while (running > 0);
}

Outcome Worker::run(Transfer& transfer)
{
    run(std::vector<Transfer*>{&transfer});
    return outcome(transfer);
}

std::vector<std::unique_ptr<Transfer>> several(int count, const std::string& url,
                                               const std::string& caFile)
{
    std::vector<std::unique_ptr<Transfer>> made;
    for (int i = 0; i < count; ++i) {
        made.push_back(std::make_unique<Transfer>(url, caFile));
    }
    return made;
}

MZCurl::MZCurlMulti::MultiMsg readOne(MZCurl::MZCurlMulti& multi)
{
    MZCurl::MZCurlMulti::MultiMsg message;
    EXPECT_TRUE(multi.InfoRead(message));
    return message;
}

}  // namespace test
