// log_contract_test.cpp - the contract of log.h for records on standard error.
#include "arrange.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

/// Replaces standard error by a socket that keeps writes apart.
class ALog : public testing::Test {
protected:
    void SetUp() override
    {
        arrange::bareDevice();
        m_before = dup(STDERR_FILENO);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, m_ends), 0);
        ASSERT_EQ(dup2(m_ends[1], STDERR_FILENO), STDERR_FILENO);
    }
    void TearDown() override
    {
        dup2(m_before, STDERR_FILENO);
        for (const int descriptor : {m_before, m_ends[0], m_ends[1]})
            close(descriptor);
    }

    /// The content of each write since the last call.
    std::vector<std::string> writes() const
    {
        std::vector<std::string> found;
        std::string room(65536, '\0');
        for (ssize_t size = 0; (size = recv(m_ends[0], room.data(), room.size(), 0)) > 0;)
            found.push_back(room.substr(0, static_cast<std::size_t>(size)));
        return found;
    }

private:
    int m_before = -1;
    int m_ends[2] = {-1, -1};
};

TEST_F(ALog, WritesEachRecordInOnePiece)
{
    for (const std::size_t size : {std::size_t{1}, std::size_t{100}, std::size_t{3000}}) {
        const std::string text(size, 'x');
        EXPECT_GT(__dlog_print(DLOG_ERROR, "TAG", "%s: %s(%d) > a %s", "f", "g", 1, text.c_str()),
                  0);
        const auto found = writes();
        ASSERT_EQ(found.size(), 1u) << "records of two threads, or of two programs, get mixed";
        EXPECT_THAT(found[0], EndsWith("\n"));
        EXPECT_EQ(std::count(found[0].begin(), found[0].end(), '\n'), 1);
    }
}

TEST_F(ALog, LetsNoArgumentMakeALineOfItsOwnOrSteerATerminal)
{
    for (const std::string control : {"\n", "\r", "\r\n", "\033[2J", "\001", "\x7f", "\b"}) {
        __dlog_print(DLOG_ERROR, "TAG", "%s: %s(%d) > a %s", "f", "g", 1,
                     ("a" + control + "E/TAG: made up").c_str());
        const auto found = writes();
        ASSERT_EQ(found.size(), 1u);
        EXPECT_EQ(std::count_if(found[0].begin(), found[0].end() - 1,
                                [](unsigned char c) { return c < ' ' || c == 0x7f; }),
                  0)
            << found[0];
    }
}

/// Messages as the service prints them. Tokens, ids, bodies and queries are private.
TEST_F(ALog, ShowsNoPrivateValue)
{
    const char* const secret = "https://s/p?s3cr3t";
    for (const log_priority priority : {DLOG_DEBUG, DLOG_INFO, DLOG_WARN}) {
        if (log_shows_private(priority) != 0)
            GTEST_FAIL() << "private values are shown, without being asked for";
        __dlog_print(priority, "BILLING_SERVICE", "%s: %s(%d) > parameters = %s", "f", "g", 1,
                     secret);
        __dlog_print(priority, "BILLING_SERVICE", "%s: %s(%d) > strRsp :%s", "f", "g", 1, secret);
        __dlog_print(priority, "BILLING_SERVICE",
                     "%s: %s(%d) > >>CheckServerAvailability m_bSSL : %d ; Header: %s", "f", "g", 1,
                     1, secret);
        __dlog_print(priority, "BILLING_SERVICE",
                     "%s: %s(%d) > \033[0;33m>>CheckServerAvailability Url[%s]\033[0;m", "f", "g",
                     1, secret);
    }
    for (const std::string& record : writes())
        EXPECT_THAT(record, Not(HasSubstr("s3cr3t")));
}

}  // namespace
