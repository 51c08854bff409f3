// client_text_test.cpp - how billingctl prints texts from other programs.
#include "base/calls.h"
#include "base/json.h"
#include "base/text.h"

#include <gtest/gtest.h>

#include <string>

using namespace client;

namespace {

TEST(AText, ThatSteersATerminalIsShownInEscapes)
{
    EXPECT_EQ(shown("a\x1b[31m\x7f", false), "a\\x1b[31m\\x7f");
    EXPECT_EQ(shown("a\u0085\u202e\u2066b", false), "a\\u{85}\\u{202e}\\u{2066}b");
    EXPECT_EQ(shown("a\u2028\u2029", true), "a\\u{2028}\\u{2029}");
    EXPECT_EQ(shown(std::string("a\0b", 3), true), "a\\x00b");
}

TEST(AText, ThatIsNoUtf8IsShownInEscapes)
{
    EXPECT_EQ(shown("\xff\xc3(\xe2\x82", false), "\\xff\\xc3(\\xe2\\x82");
}

TEST(AText, KeepsItsLinesWhereThereMayBeSome)
{
    EXPECT_EQ(shown("a\n\tb\r", true), "a\n\tb\\x0d");
    EXPECT_EQ(shown("a\n\tb", false), "a\\x0a\\x09b");
}

TEST(AText, OfAnyAlphabetIsShownAsItIs)
{
    EXPECT_EQ(shown("Grüße, 請求 𝄞 €", false), "Grüße, 請求 𝄞 €");
}

TEST(Json, IsAWholeDocument)
{
    EXPECT_TRUE(isJson("{\"a\": [1, 2.50, \"x\"]}"));
    EXPECT_TRUE(isJson("[]"));
    EXPECT_FALSE(isJson(""));
    EXPECT_FALSE(isJson("{"));
    EXPECT_FALSE(isJson("{} {}"));
    EXPECT_FALSE(isJson("{'a': 1}"));
    EXPECT_FALSE(isJson(std::string(100000, '['))) << "nested too deep";
}

TEST(Json, IsIndentedAndNoValueRewritten)
{
    EXPECT_EQ(indented("{\"a\":[1.10,{}, [ ]],\"b\":\"\\\"{,:\"}"),
              "{\n  \"a\": [\n    1.10,\n    {},\n    []\n  ],\n  \"b\": \"\\\"{,:\"\n}");
    EXPECT_EQ(indented(" [ ] "), "[]");
    EXPECT_EQ(indented("\"a b\""), "\"a b\"");
}

TEST(Json, InOneLineIsTheSameValueInEitherWriting)
{
    Json::Value value;
    value["text"] = "Gr\u00fc\u00dfe \u009b\n";
    value["number"] = 1.5;
    EXPECT_EQ(lineOf(value, false), "{\"number\":1.5,\"text\":\"Gr\u00fc\u00dfe \u009b\\n\"}");
    EXPECT_EQ(lineOf(value, true), "{\"number\":1.5,\"text\":\"Gr\\u00fc\\u00dfe \\u009b\\n\"}");
}

TEST(Colours, AreOnlyThereWhenTheyAreWanted)
{
    EXPECT_EQ(Style(true).good("x"), "\033[32mx\033[0m");
    EXPECT_EQ(Style(false).bad("x"), "x");
}

TEST(AResult, HasItsExitCode)
{
    EXPECT_EQ(exitCodeOf(0), 0);
    EXPECT_EQ(exitCodeOf(-1), 3);
    EXPECT_EQ(exitCodeOf(1160003), 4);
    EXPECT_EQ(exitCodeOf(5), 1);
}

}  // namespace
