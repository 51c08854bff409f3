// string_test.cpp - BillingMem and BillingString: the C calls that they wrap, and their behaviour for a null
// pointer.
#include "BillingString.h"
#include "log_matchers.h"

#include <gmock/gmock.h>

#include <climits>
#include <functional>
#include <string>

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

const LinesOf Source{"BillingString.cpp"};

class Memory : public ::testing::Test {
protected:
    Memory() { fake::platform().reset(); }

    char m_szDest[16] = "0123456789";
};
using Text = Memory;

TEST_F(Memory, IsSet)
{
    BillingMem::Set(m_szDest, 'x', 3);
    EXPECT_STREQ(m_szDest, "xxx3456789");
}

TEST_F(Memory, IsComparedAsBytes)
{
    EXPECT_EQ(BillingMem::Diff("a\0b", "a\0b", 3), 0);
    EXPECT_LT(BillingMem::Diff("a\0b", "a\0c", 3), 0);
    EXPECT_GT(BillingMem::Diff("\xff", "\x01", 1), 0) << "unsigned";
    EXPECT_EQ(BillingMem::Diff("abc", "abd", 2), 0);
}

TEST_F(Memory, IsCopied)
{
    BillingMem::Copy(m_szDest, "abc", 2);
    EXPECT_STREQ(m_szDest, "ab23456789");
}

TEST_F(Memory, IsMovedOverItself)
{
    BillingMem::Move(m_szDest + 1, m_szDest, 9);
    EXPECT_STREQ(m_szDest, "0012345678");
}

TEST_F(Text, IsAppendedWithATerminator)
{
    char szDest[8] = "ab\0xxxx";
    BillingString::Concate(szDest, "cdef", 2);
    EXPECT_THAT(szDest, ElementsAre('a', 'b', 'c', 'd', '\0', 'x', 'x', '\0'));
}

TEST_F(Text, StartsWithAnother)
{
    EXPECT_EQ(BillingString::Diff("abcdef", "abc"), 0);
    EXPECT_NE(BillingString::Diff("abc", "abcdef"), 0);
    EXPECT_EQ(BillingString::Diff("abc", ""), 0);
    EXPECT_LT(BillingString::Diff("abc", "abd"), 0);
}

TEST_F(Text, IsComparedUpToALimit)
{
    EXPECT_EQ(BillingString::Diff("abcdef", "abcxyz", 3), 0);
    EXPECT_LT(BillingString::Diff("abcdef", "abcxyz", 4), 0);
    EXPECT_NE(BillingString::Diff("abcdef", "abc", 4), 0) << "this one does not look for a start";
}

TEST_F(Text, IsCopiedWithoutATerminatorOfItsOwn)
{
    BillingString::Copy(m_szDest, "abc", 2);
    EXPECT_STREQ(m_szDest, "ab23456789");

    BillingString::Copy(m_szDest, "abc", 6);
    EXPECT_EQ(std::string(m_szDest, 8), std::string("abc\0\0\0"
                                                    "67",
                                                    8))
        << "filled up";
}

TEST_F(Text, HasALength)
{
    EXPECT_EQ(BillingString::Length("abc"), 3u);
    EXPECT_EQ(BillingString::Length(""), 0u);
}

TEST_F(Text, IsSearchedForACharacter)
{
    const char* const szText = "abcabc";
    EXPECT_EQ(BillingString::Char(szText, 'b'), szText + 1);
    EXPECT_EQ(BillingString::Char(szText, '\0'), szText + 6);
    EXPECT_EQ(BillingString::Char(szText, 'x'), nullptr);
}

TEST_F(Text, IsPrintedIntoItsBounds)
{
    EXPECT_EQ(BillingString::Snprintf(m_szDest, 6, "%s-%d", "abc", 1234), 8) << "the whole length";
    EXPECT_STREQ(m_szDest, "abc-1");
    EXPECT_EQ(std::string(m_szDest + 6), "6789");
}

TEST_F(Text, IsPrintedNowhereWithoutRoom)
{
    EXPECT_EQ(BillingString::Snprintf(m_szDest, 0, "abc"), 3);
    EXPECT_EQ(BillingString::Snprintf(m_szDest, -1, "abc"), 3);
    EXPECT_STREQ(m_szDest, "0123456789");
}

TEST_F(Text, IsReadAsANumberUpToTheFirstOtherCharacter)
{
    EXPECT_EQ(BillingString::Integer("12abc"), 12);
    EXPECT_EQ(BillingString::Integer(" -7"), -7);
    EXPECT_EQ(BillingString::Integer("0x10"), 0) << "decimal";
    EXPECT_EQ(BillingString::Integer("x"), 0);
    EXPECT_EQ(BillingString::Integer("99999999999999999999"), LONG_MAX);
    EXPECT_EQ(BillingString::UlInteger("4294967295"), 4294967295u);
    EXPECT_EQ(BillingString::UlInteger("0x10"), 0u) << "decimal";
    EXPECT_EQ(BillingString::UlInteger("99999999999999999999"), ULONG_MAX);
}

TEST_F(Text, IsMadeOfANumber)
{
    EXPECT_EQ(BillingString::IntegerToString(0), "0");
    EXPECT_EQ(BillingString::IntegerToString(INT_MAX), "2147483647");
    EXPECT_EQ(BillingString::IntegerToString(INT_MIN), "-2147483648");
    EXPECT_EQ(BillingString::LLongToString(LLONG_MAX), "9223372036854775807");
    EXPECT_EQ(BillingString::LLongToString(LLONG_MIN), "-9223372036854775808");
}

TEST_F(Text, SaysNothingWhenThereIsNothingWrong)
{
    BillingMem::Copy(m_szDest, "a", 1);
    BillingString::Diff("a", "b");
    BillingString::IntegerToString(1);
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

// A call with a null pointer: its name, the logged operation and condition, and a check of its return value.
struct NullCase {
    const char* szName;
    const char* szOperation;
    const char* szCondition;
    std::function<bool(char* szDest)> neutral;
};
constexpr const char* DEST = "dest == NULL";
constexpr const char* SOURCE = "source == NULL";
constexpr const char* STR = "str == NULL";

class ANullPointer : public Memory, public ::testing::WithParamInterface<NullCase> {};

TEST_P(ANullPointer, IsLoggedAndSurvived)
{
    EXPECT_TRUE(GetParam().neutral(m_szDest));
    EXPECT_STREQ(m_szDest, "0123456789") << "nothing was written";
    EXPECT_THAT(LoggedLines(),
                ElementsAre(Source.refused(GetParam().szOperation, GetParam().szCondition)));
}

// Wraps a call without a return value, whose check is always true.
template <typename Call>
auto Void(Call call)
{
    return [call](char* szDest) {
        call(szDest);
        return true;
    };
}

const NullCase NULL_CASES[] = {
    {"SetDest", "Set", DEST, Void([](char*) { BillingMem::Set(nullptr, 1, 4); })},
    {"DiffDest", "Diff", DEST, [](char* sz) { return BillingMem::Diff(nullptr, sz, 4) == 0; }},
    {"DiffSource", "Diff", SOURCE, [](char* sz) { return BillingMem::Diff(sz, nullptr, 4) == 0; }},
    {"DiffBoth", "Diff", DEST, [](char*) { return BillingMem::Diff(nullptr, nullptr, 4) == 0; }},
    {"CopyDest", "Copy", DEST, Void([](char* sz) { BillingMem::Copy(nullptr, sz, 4); })},
    {"CopySource", "Copy", SOURCE, Void([](char* sz) { BillingMem::Copy(sz, nullptr, 4); })},
    {"MoveDest", "Move", DEST, Void([](char* sz) { BillingMem::Move(nullptr, sz, 4); })},
    {"MoveSource", "Move", SOURCE, Void([](char* sz) { BillingMem::Move(sz, nullptr, 4); })},
    {"ConcateDest", "Concate", DEST,
     Void([](char* sz) { BillingString::Concate(nullptr, sz, 4); })},
    {"ConcateSource", "Concate", SOURCE,
     Void([](char* sz) { BillingString::Concate(sz, nullptr, 4); })},
    {"StartDest", "Diff", DEST, [](char* sz) { return BillingString::Diff(nullptr, sz) == 0; }},
    {"StartSource", "Diff", SOURCE, [](char* sz) { return BillingString::Diff(sz, nullptr) == 0; }},
    {"TextDiffDest", "Diff", DEST,
     [](char* sz) { return BillingString::Diff(nullptr, sz, 4) == 0; }},
    {"TextDiffSource", "Diff", SOURCE,
     [](char* sz) { return BillingString::Diff(sz, nullptr, 4) == 0; }},
    {"TextCopyDest", "Copy", DEST, Void([](char* sz) { BillingString::Copy(nullptr, sz, 4); })},
    {"TextCopySource", "Copy", SOURCE, Void([](char* sz) { BillingString::Copy(sz, nullptr, 4); })},
    {"CopyBoth", "Copy", DEST, Void([](char*) { BillingMem::Copy(nullptr, nullptr, 4); })},
    {"MoveBoth", "Move", DEST, Void([](char*) { BillingMem::Move(nullptr, nullptr, 4); })},
    {"ConcateBoth", "Concate", DEST,
     Void([](char*) { BillingString::Concate(nullptr, nullptr, 4); })},
    {"StartBoth", "Diff", DEST, [](char*) { return BillingString::Diff(nullptr, nullptr) == 0; }},
    {"TextDiffBoth", "Diff", DEST,
     [](char*) { return BillingString::Diff(nullptr, nullptr, 4) == 0; }},
    {"TextCopyBoth", "Copy", DEST, Void([](char*) { BillingString::Copy(nullptr, nullptr, 4); })},
    {"Length", "Length", STR, [](char*) { return BillingString::Length(nullptr) == 0; }},
    {"Char", "Char", STR, [](char*) { return BillingString::Char(nullptr, 'a') == nullptr; }},
    {"Snprintf", "Snprintf", STR,
     [](char*) { return BillingString::Snprintf(nullptr, 4, "a") == 0; }},
    {"Integer", "Integer", STR, [](char*) { return BillingString::Integer(nullptr) == 0; }},
    {"UlInteger", "UlInteger", STR, [](char*) { return BillingString::UlInteger(nullptr) == 0; }},
};
INSTANTIATE_TEST_SUITE_P(Strings, ANullPointer, ::testing::ValuesIn(NULL_CASES),
                         [](const auto& tCase) { return tCase.param.szName; });

}  // namespace
