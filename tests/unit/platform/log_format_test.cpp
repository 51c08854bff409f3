// log_format_test.cpp - log records made from a format and its arguments.
#include "linux/log/log_format.h"

#include "linux/log/log_private.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <string>

using logging::FormatOptions;
using logging::Origin;
using logging::Record;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

#define ORIGIN "%s: %s(%d) > "
#define AT "File.cpp", "function", 7
#define HEAD "File.cpp: function(7) > "

Origin g_origin;

std::string renderWith(const FormatOptions& options, const char* format, ...)
{
    Record record;
    va_list arguments;
    va_start(arguments, format);
    g_origin = logging::writeMessage(record, options, format, arguments).origin;
    va_end(arguments);
    record.finish('\n');
    EXPECT_EQ(record.line(), std::string(record.text()) + "\n");
    EXPECT_LE(record.line().size(), logging::kRecordLimit);
    return std::string(record.text());
}

template <typename... Arguments>
std::string render(const char* format, Arguments... arguments)
{
    return renderWith({}, format, arguments...);
}

template <typename... Arguments>
std::string printed(const char* format, Arguments... arguments)
{
    char text[4000];
    snprintf(text, sizeof text, format, arguments...);
    return text;
}

/// A format whose text argument is public.
#define PUBLIC ORIGIN "CountryCode:[%s]"
std::string renderPublic(const std::string& argument)
{
    const std::string all = render(PUBLIC, AT, argument.c_str());
    const std::string head = HEAD "CountryCode:[";
    EXPECT_THAT(all, StartsWith(head));
    EXPECT_THAT(all, EndsWith("]"));
    return all.substr(head.size(), all.size() - head.size() - 1);
}

TEST(LogFormat, WritesNumbersAsTheCLibraryDoes)
{
#define SAME(...) EXPECT_EQ(render(__VA_ARGS__), printed(__VA_ARGS__))
    SAME("%d %d %u %x", -1, INT32_MAX, 3U, 255U);
    SAME("%ld %lu %lx %lld %llu %llx", -1L, 1UL, 10UL, INT64_MIN + 0LL, UINT64_MAX + 0ULL, 7ULL);
    SAME("%zu %zd %zx", SIZE_MAX, ssize_t{-5}, std::size_t{255});
    SAME("%p %p", static_cast<void*>(&g_origin), static_cast<void*>(nullptr));
    SAME("100%% %d%%", 5);
#undef SAME
}

TEST(LogFormat, WritesPublicTexts)
{
    EXPECT_EQ(render("%s: %s(%d) > x", AT), HEAD "x");
    EXPECT_EQ(render("settings: %s", "abc"), "settings: abc");
    EXPECT_EQ(renderWith({false, true}, "[%s|%s]", "abc", ""), "[abc|]");
}

TEST(LogFormat, ReadsAHiddenTextOnlySoFarAsItTellsItsSize)
{
    std::string text(std::size_t{64} * 1024, 'x');
    EXPECT_EQ(render("%s", text.c_str()), "<private:65536 bytes>");
    text += "x";
    EXPECT_EQ(render("%s", text.c_str()), "<private:over 65536 bytes>");
}

TEST(LogFormat, WritesANullTextAsNull)
{
    const char* const nothing = nullptr;
    EXPECT_EQ(render("a %s b", nothing), "a (null) b");
    EXPECT_EQ(render(ORIGIN "BillingUtil::GetSSOUID : %s", AT, nothing),
              HEAD "BillingUtil::GetSSOUID : (null)");
}

TEST(LogFormat, EscapesControlCharactersOfArguments)
{
    EXPECT_EQ(renderPublic("a\r\nE/FORGED: b\tc"), "a\\r\\nE/FORGED: b\\tc");
    EXPECT_EQ(renderPublic("\x1b[31m\x07\x7f\x01"), "\\x1b[31m\\x07\\x7f\\x01");
    EXPECT_EQ(renderPublic("\033[0;33m"), "\\x1b[0;33m");
    EXPECT_EQ(renderPublic("end\n"), "end\\n");
}

TEST(LogFormat, KeepsUtf8AndEscapesWhatIsNone)
{
    EXPECT_EQ(renderPublic("\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"),
              "\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80");
    EXPECT_EQ(renderPublic("a\xff\xc3(\xe2\x82"), "a\\xff\\xc3(\\xe2\\x82");
    EXPECT_EQ(renderPublic("\xc0\x8a\xed\xa0\x80"), "\\xc0\\x8a\\xed\\xa0\\x80");
    // Terminals may interpret the C1 control characters, beyond ASCII, as commands.
    EXPECT_EQ(renderPublic("\xc2\x9b"
                           "31m\xc2\xa0"),
              "\\xc2\\x9b31m\xc2\xa0");
}

TEST(LogFormat, KeepsColoursOfTheFormatForATerminalOnly)
{
    const char* const format = ORIGIN "\033[0;31mCountryCode:[%s]\033[0;m";
    EXPECT_EQ(renderWith({true, false}, format, AT, "\033[0;m"),
              HEAD "\033[0;31mCountryCode:[\\x1b[0;m]\033[0;m");
    EXPECT_EQ(renderWith({false, false}, format, AT, "x"), HEAD "CountryCode:[x]");
    EXPECT_EQ(renderWith({true, false}, "\033[2Ja\033[0;33mb"), "\\x1b[2Ja\033[0;33mb");
}

TEST(LogFormat, LeavesOutOneClosingLineBreakAndEscapesOthers)
{
    EXPECT_EQ(render("a\n"), "a");
    EXPECT_EQ(render("a\n\n"), "a\\n");
    EXPECT_EQ(render("a\nb"), "a\\nb");
    EXPECT_EQ(renderWith({true, false}, "\033[0;33ma\n\033[0;m"), "\033[0;33ma\033[0;m");
    EXPECT_EQ(render("\n"), "");
}

TEST(LogFormat, HidesPrivateTextsAndSaysTheirSize)
{
    EXPECT_EQ(render(ORIGIN "strRsp :%s", AT, "s3cr3t"), HEAD "strRsp :<private:6 bytes>");
    EXPECT_EQ(render(ORIGIN "\033[0;33mstrRsp :%s\033[0;m", AT, ""),
              HEAD "strRsp :<private:0 bytes>");
    EXPECT_EQ(render(ORIGIN "parameters = %s\n", AT, "('a',)"),
              HEAD "parameters = <private:6 bytes>");
    EXPECT_EQ(renderWith({false, true}, ORIGIN "strRsp :%s", AT, "s3\ncr3t"),
              HEAD "strRsp :s3\\ncr3t");
}

TEST(LogFormat, HidesOfAUrlWhatFollowsTheFirstQuestionMark)
{
    const char* const format = ORIGIN "\033[0;33mRequestGetProducts start Url[%s]\033[0;m";
    EXPECT_EQ(render(format, AT, "https://h/p?guid=1&x=a?b"),
              HEAD "RequestGetProducts start Url[https://h/p?<private:12 bytes>]");
    EXPECT_EQ(render(format, AT, "https://h/p?"),
              HEAD "RequestGetProducts start Url[https://h/p?<private:0 bytes>]");
    EXPECT_EQ(render(format, AT, "https://h/p"), HEAD "RequestGetProducts start Url[https://h/p]");
    EXPECT_EQ(renderWith({false, true}, format, AT, "https://h/p?guid=1"),
              HEAD "RequestGetProducts start Url[https://h/p?guid=1]");
}

TEST(LogFormat, HidesEveryTextOfAMessageThatIsNotClassified)
{
    EXPECT_EQ(render(ORIGIN "new message %s %d %s", AT, "a", 5, "bc"),
              HEAD "new message <private:1 bytes> 5 <private:2 bytes>");
    EXPECT_EQ(render("%s", "a"), "<private:1 bytes>");
}

TEST(LogFormat, CutsARecordAtItsLimitAndSaysHowMuch)
{
    const std::string all = render(PUBLIC, AT, std::string(100000, 'x').c_str());
    EXPECT_GT(all.size(), 3900U);
    EXPECT_THAT(all, StartsWith(HEAD "CountryCode:[xxx"));
    const std::size_t shown = all.find(" <") - std::string(HEAD "CountryCode:[").size();
    EXPECT_THAT(all, EndsWith(" <" + std::to_string(100001 - shown) + " bytes cut>"));
}

TEST(LogFormat, CutsBetweenCharactersAndClosesTheColour)
{
    for (std::size_t lead = 0; lead < 4; lead++) {
        std::string text(lead, 'a');
        for (int i = 0; i < 3000; i++)
            text += "\xe2\x82\xac";
        const std::string all = renderWith(
            {true, false}, ORIGIN "\033[0;33mCountryCode:[%s]\033[0;m", AT, text.c_str());
        const std::size_t mark = all.find("\033[0;m <");
        ASSERT_NE(mark, std::string::npos);
        EXPECT_EQ(all.substr(mark - 3, 3), "\xe2\x82\xac");
    }
    const std::string escaped = render(PUBLIC, AT, std::string(5000, '\n').c_str());
    EXPECT_THAT(escaped, HasSubstr("\\n <"));
}

TEST(LogFormat, WritesAConversionThatItDoesNotKnowAsItStands)
{
    int count = 99;
    EXPECT_EQ(render("a %d %n %s", 1, &count, "s3cr3t"), "a 1 %n %s");
    EXPECT_EQ(count, 99);
    EXPECT_EQ(render("%2$s %1$s", "s3cr3t", "s3cr3t"), "%2$s %1$s");
    EXPECT_EQ(render("%ls", L"s3cr3t"), "%ls");
    EXPECT_EQ(render("%5d %s", 1, "s3cr3t"), "%5d %s");
    EXPECT_EQ(render("%.2s %s", "s3cr3t", "s3cr3t"), "%.2s %s");
    EXPECT_EQ(render("%f %s", 1.5, "s3cr3t"), "%f %s");
    EXPECT_EQ(render("%lp %s", nullptr, "s3cr3t"), "%lp %s");
    EXPECT_EQ(render("%l"), "%l");
    EXPECT_EQ(render("100%"), "100%");
    EXPECT_EQ(render("%-"), "%-");
}

TEST(LogFormat, KnowsWhereAMessageOfTheServiceComesFrom)
{
    render(ORIGIN "text %d", AT, 5);
    EXPECT_STREQ(g_origin.file, "File.cpp");
    EXPECT_STREQ(g_origin.function, "function");
    EXPECT_EQ(g_origin.line, 7);
    render("settings: %s", "x");
    EXPECT_EQ(g_origin.file, nullptr);
}

struct Message {
    const char* format;
    std::string rules;
};

#define MESSAGE(format, rules) {ORIGIN "\033[0;33m" format "\033[0;m", rules},
const Message kMessages[] = {
#include "linux/log/log_private.inc"
};
#undef MESSAGE

/// Renders a message with a recognisable text for each of its text arguments.
std::string renderMessage(const FormatOptions& options, const Message& message)
{
    const char* const canary = "https://h/?CANARY";
    const std::string& rules = message.rules;
    const char* const format = message.format;
    if (rules.size() == 1)
        return renderWith(options, format, AT, canary);
    if (rules == "pp")
        return renderWith(options, format, AT, canary, canary);
    if (rules[0] == '.' && rules.size() == 2)
        return renderWith(options, format, AT, 5, canary);
    if (rules == "p.")
        return renderWith(options, format, AT, canary, 5);
    if (rules == "p..")
        return renderWith(options, format, AT, canary, nullptr, nullptr);
    if (rules == "x..")
        return renderWith(options, format, AT, canary, 5, 5);
    if (rules == ".u.........")
        return renderWith(options, format, AT, 1U, canary, 2, 3L, 4L, 5L, 6L, 7L, 8L, 9L, 10L);
    ADD_FAILURE() << "no call for " << rules;
    return {};
}

TEST(LogFormat, LetsNoCanaryThroughAPrivateArgumentOfAnyMessage)
{
    for (const Message& message : kMessages) {
        SCOPED_TRACE(message.format);
        const bool isPublic = message.rules.find('p') != std::string::npos;
        const std::string text = renderMessage({}, message);
        EXPECT_EQ(text.find("CANARY") != std::string::npos, isPublic) << text;
        EXPECT_EQ(text.find("<private:") != std::string::npos, !isPublic) << text;
        EXPECT_THAT(text, Not(HasSubstr("%")));
        EXPECT_THAT(renderMessage({false, true}, message), HasSubstr("CANARY"));
    }
}

}  // namespace
