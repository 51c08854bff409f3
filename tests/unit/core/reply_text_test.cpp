// reply_text_test.cpp - the part of a server's body that the bus can carry.
#include "ReplyText.h"
#include "heap_double.h"

#include <gtest/gtest.h>

namespace {

constexpr std::size_t PLENTY = 1000;

TEST(ReplyTextLimit, IsTheLongestTextThatTheBusTakesFromAService)
{
    EXPECT_EQ(ReplyTextLimit(":1.5"), 33554375u);
    EXPECT_EQ(ReplyTextLimit(":1.9999"), 33554375u);
}

TEST(ReplyTextLimit, ShrinksWithTheCallersName)
{
    EXPECT_EQ(ReplyTextLimit(":1.99999"), 33554367u);
    EXPECT_EQ(ReplyTextLimit(nullptr), 33554432u - 9 - 32 - 264);
}

class ReplyText : public ::testing::Test {
protected:
    static std::string made(std::string strText, std::size_t uLimit = PLENTY)
    {
        EXPECT_TRUE(MakeReplyText(strText, uLimit));
        return strText;
    }
};

TEST_F(ReplyText, LeavesValidTextAloneByteForByte)
{
    EXPECT_EQ(made(""), "");
    EXPECT_EQ(made("\xEF\xBB\xBF{\"\x01\":\t\"\x7f\"}\r\n"),
              "\xEF\xBB\xBF{\"\x01\":\t\"\x7f\"}\r\n");
    EXPECT_EQ(made("é 日本 \xF0\x9F\x98\x80"), "é 日本 \xF0\x9F\x98\x80");
}

TEST_F(ReplyText, ReplacesEachBadByte)
{
    EXPECT_EQ(made("\xff\xfe"), "\uFFFD\uFFFD");
    EXPECT_EQ(made(std::string("a\0b", 3)), "a\uFFFDb");
    EXPECT_EQ(made(std::string(2, '\0')), "\uFFFD\uFFFD");
    EXPECT_EQ(made("cut \xE6\x97"), "cut \uFFFD\uFFFD");
    EXPECT_EQ(made("\xED\xA0\x80"), "\uFFFD\uFFFD\uFFFD") << "a surrogate";
    EXPECT_EQ(made("\xC0\x80"), "\uFFFD\uFFFD") << "an overlong form";
}

TEST_F(ReplyText, FindsABadByteAtEachPlaceOfALongText)
{
    for (const char cBad : {'\0', '\x80', '\xff'}) {
        for (std::size_t uAt = 0; uAt < 26; uAt++) {
            std::string strText(26, '\x01');
            strText[uAt] = cBad;
            std::string strMade = strText;
            strMade.replace(uAt, 1, "\uFFFD");
            EXPECT_EQ(made(strText), strMade) << "at " << uAt;
        }
    }
    EXPECT_EQ(made("12345678é"), "12345678é");
    EXPECT_EQ(made("1234567é90123456"), "1234567é90123456") << "across the end of a word";
    EXPECT_EQ(made(std::string(24, '\x7f')), std::string(24, '\x7f'));
}

TEST_F(ReplyText, TakesATextOfExactlyTheLimit)
{
    EXPECT_EQ(made("12345", 5), "12345");
    EXPECT_EQ(made("12\xff", 5), "12\uFFFD");
}

TEST_F(ReplyText, EmptiesATextThatFindsNoMemoryAndThrowsNothing)
{
    std::string strText(5000, '\xff');
    FailLargeAllocation(10000, 1);

    EXPECT_FALSE(MakeReplyText(strText, 20000));

    EXPECT_EQ(strText, "");
    EXPECT_EQ(made(std::string(2, '\xff')), "\uFFFD\uFFFD") << "the next one is made";
}

TEST_F(ReplyText, EmptiesATextThatIsTooLong)
{
    std::string strText = "123456";
    EXPECT_FALSE(MakeReplyText(strText, 5));
    EXPECT_EQ(strText, "");
}

TEST_F(ReplyText, MeasuresATextAsItWillBe)
{
    std::string strText = "123\xff";
    EXPECT_FALSE(MakeReplyText(strText, 5));
    EXPECT_EQ(strText, "");
}

}  // namespace
