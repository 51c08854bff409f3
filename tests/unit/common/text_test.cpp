// text_test.cpp - BillingUtil's texts and encodings: examples, published vectors, and comparison with a
// second implementation.
#include "BillingOpenSsl.h"
#include "BillingUtil.h"
#include "log_matchers.h"

#include <glib.h>
#include <gmock/gmock.h>
#include <sys/time.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const LinesOf Source{"BillingUtil.cpp"};

struct Doubles {
    int iBiosLeft = -1;          ///< number of BIOs before creation fails; -1: no limit
    int iMostWritten = INT_MAX;  ///< bytes that one write takes; without any it returns this number
    bool bNoHmac = false;
    bool bNoUtcTime = false;
    long lNow = 1706745599;  ///< 2024-01-31 23:59:59 UTC
};
Doubles g_tDoubles;

}  // namespace

extern "C" {

BIO* __real_BIO_new(const BIO_METHOD* method);
BIO* __wrap_BIO_new(const BIO_METHOD* method)
{
    if (g_tDoubles.iBiosLeft == 0) {
        return nullptr;
    }
    g_tDoubles.iBiosLeft -= g_tDoubles.iBiosLeft > 0 ? 1 : 0;
    return __real_BIO_new(method);
}

int __real_BIO_write(BIO* bio, const void* bytes, int length);
int __wrap_BIO_write(BIO* bio, const void* bytes, int length)
{
    const int iMost = g_tDoubles.iMostWritten;
    return iMost <= 0 ? iMost : __real_BIO_write(bio, bytes, std::min(length, iMost));
}

HMAC_CTX* __real_HMAC_CTX_new(void);
HMAC_CTX* __wrap_HMAC_CTX_new(void)
{
    return g_tDoubles.bNoHmac ? nullptr : __real_HMAC_CTX_new();
}

time_t __wrap_time(time_t* out)
{
    return out != nullptr ? *out = g_tDoubles.lNow : g_tDoubles.lNow;
}

int __wrap_gettimeofday(timeval* now, void*)
{
    *now = {g_tDoubles.lNow + 1, 999999};  // differs from time(): it shows which clock was asked
    return 0;
}

struct tm* __real_gmtime_r(const time_t* seconds, struct tm* out);
struct tm* __wrap_gmtime_r(const time_t* seconds, struct tm* out)
{
    return g_tDoubles.bNoUtcTime ? nullptr : __real_gmtime_r(seconds, out);
}

}  // extern "C"

namespace {

class Text : public ::testing::Test {
protected:
    Text()
    {
        fake::platform().reset();
        g_tDoubles = Doubles();
    }
    ~Text() override
    {
        EXPECT_EQ(ERR_peek_error(), 0u) << "nothing is left for the next TLS call to find";
    }

    // Encodes into a buffer with enough room for the result.
    static std::string base64(const std::string& strIn)
    {
        std::string strBytes = strIn;
        std::vector<unsigned char> out(4 * (strIn.size() / 3 + 1) + 1, '#');
        auto uiLength = static_cast<unsigned int>(out.size());
        EXPECT_TRUE(BillingUtil::Base64Encode(reinterpret_cast<unsigned char*>(strBytes.data()),
                                              static_cast<unsigned int>(strBytes.size()),
                                              out.data(), &uiLength));
        EXPECT_EQ(out[uiLength], '#') << "no NUL behind it";
        return std::string(out.begin(), out.begin() + uiLength);
    }

    std::string randomText(std::size_t most, const std::string& strAlphabet)
    {
        std::string strText(std::uniform_int_distribution<std::size_t>(0, most)(m_random), ' ');
        std::uniform_int_distribution<std::size_t> letter(0, strAlphabet.size() - 1);
        for (char& c : strText) {
            c = strAlphabet[letter(m_random)];
        }
        return strText;
    }

    std::mt19937 m_random{20240131};
};

// --- Base64 ---

TEST_F(Text, IsEncodedAsThePublishedVectorsSay)
{
    EXPECT_EQ(base64(""), "");
    EXPECT_EQ(base64("f"), "Zg==");
    EXPECT_EQ(base64("fo"), "Zm8=");
    EXPECT_EQ(base64("foo"), "Zm9v");
    EXPECT_EQ(base64("foob"), "Zm9vYg==");
    EXPECT_EQ(base64("fooba"), "Zm9vYmE=");
    EXPECT_EQ(base64("foobar"), "Zm9vYmFy");
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(Text, IsEncodedInOneLine)
{
    const std::string strShort = base64(std::string(57, 'a'));
    const std::string strLong = base64(std::string(60, 'a'));
    EXPECT_EQ(strShort.size(), 76u);
    EXPECT_EQ(strLong.size(), 80u);
    EXPECT_EQ((strShort + strLong).find('\n'), std::string::npos);
}

TEST_F(Text, IsEncodedAsASecondImplementationDoesIt)
{
    std::string strAllBytes;
    for (int c = 0; c < 256; ++c) {
        strAllBytes += static_cast<char>(c);
    }
    for (int i = 0; i < 2000; ++i) {
        const std::string strIn = randomText(200, strAllBytes);
        gchar* const szExpected =
            g_base64_encode(reinterpret_cast<const guchar*>(strIn.data()), strIn.size());
        EXPECT_EQ(base64(strIn), szExpected);
        g_free(szExpected);
    }
}

TEST_F(Text, IsEncodedOnlyWhereThereIsRoom)
{
    unsigned char aIn[] = {'a', 'b', 'c'};
    unsigned char aOut[5] = "####";
    unsigned int uiLength = 3;
    EXPECT_FALSE(BillingUtil::Base64Encode(aIn, 3, aOut, &uiLength));
    EXPECT_THAT(LoggedLines(),
                ElementsAre(Source.error("Base64Encode", "out length is too small")));
    EXPECT_STREQ(reinterpret_cast<char*>(aOut), "####");
    EXPECT_EQ(uiLength, 3u);

    uiLength = 4;
    EXPECT_TRUE(BillingUtil::Base64Encode(aIn, 3, aOut, &uiLength));
    EXPECT_STREQ(reinterpret_cast<char*>(aOut), "YWJj");
    EXPECT_EQ(uiLength, 4u);
}

TEST_F(Text, IsNotEncodedWithANullPointer)
{
    unsigned char aBytes[8] = {};
    unsigned int uiLength = sizeof aBytes;
    EXPECT_FALSE(BillingUtil::Base64Encode(nullptr, 1, aBytes, &uiLength));
    EXPECT_FALSE(BillingUtil::Base64Encode(aBytes, 1, nullptr, &uiLength));
    EXPECT_FALSE(BillingUtil::Base64Encode(aBytes, 1, aBytes, nullptr));
    const Line tLine = Source.error("Base64Encode", "ptIn/ptOut/ptOutLength is NULL");
    EXPECT_THAT(LoggedLines(), ElementsAre(tLine, tLine, tLine));
}

TEST_F(Text, IsNotEncodedWithoutMemory)
{
    unsigned char aBytes[8] = {};
    unsigned int uiLength = sizeof aBytes;
    g_tDoubles.iBiosLeft = 0;
    EXPECT_FALSE(BillingUtil::Base64Encode(aBytes, 1, aBytes, &uiLength));
    g_tDoubles.iBiosLeft = 1;
    EXPECT_FALSE(BillingUtil::Base64Encode(aBytes, 1, aBytes, &uiLength));
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.error("Base64Encode", "b64 is NULL"),
                                           Source.error("Base64Encode", "bmem is NULL")));
}

TEST_F(Text, IsNotEncodedInPart)
{
    unsigned char aIn[] = {'a', 'b', 'c'};
    unsigned char aOut[5] = "####";
    unsigned int uiLength = 4;
    const Line tLine = Source.error("Base64Encode", "no memory for the encoded text");
    for (const int iRefused : {-1, 0}) {
        fake::platform().clearTimeline();
        g_tDoubles.iMostWritten = iRefused;
        EXPECT_FALSE(BillingUtil::Base64Encode(aIn, 3, aOut, &uiLength));
        EXPECT_STREQ(reinterpret_cast<char*>(aOut), "####");
        EXPECT_EQ(uiLength, 4u);
        EXPECT_THAT(LoggedLines(), ElementsAre(tLine));
    }
}

TEST_F(Text, IsEncodedWholeByWritesOfAFewBytes)
{
    g_tDoubles.iMostWritten = 5;
    EXPECT_EQ(base64("twelve bytes"), "dHdlbHZlIGJ5dGVz");
}

// --- check value ---

std::string Base64OfHex(const std::string& strHex)
{
    std::vector<guchar> bytes;
    for (std::size_t i = 0; i < strHex.size(); i += 2) {
        bytes.push_back(static_cast<guchar>(std::stoi(strHex.substr(i, 2), nullptr, 16)));
    }
    gchar* const szText = g_base64_encode(bytes.data(), bytes.size());
    std::string strText = szText;
    g_free(szText);
    return strText;
}

TEST_F(Text, HasTheCheckValueOfThePublishedExample)
{
    const std::string strMessage = "The quick brown fox jumps over the lazy dog";
    const std::string strExpected = "97yD9DBThCSxMpjmqm+xQ+9NWaFJRhdZl0edvC0aPNg=";

    EXPECT_EQ(BillingUtil::getCheckValue("key", strMessage), strExpected);

    const auto info = [](const std::string& strText) {
        return Source.info("getCheckValue", strText);
    };
    EXPECT_THAT(LoggedLines(),
                ElementsAre(info("getCheckValue , key is key "),
                            info("getCheckValue , msg is " + strMessage + " "),
                            info("getCheckValue , checkValue is " + strExpected + " ")));
}

// RFC 4231, test cases 1 to 4, 6 and 7.
TEST_F(Text, HasThePublishedCheckValues)
{
    const auto expect = [](const std::string& strKey, const std::string& strMessage,
                           const std::string& strHex) {
        EXPECT_EQ(BillingUtil::getCheckValue(strKey, strMessage), Base64OfHex(strHex));
    };
    std::string strCounting;
    for (char c = 1; c <= 25; ++c) {
        strCounting += c;
    }
    expect(std::string(20, '\x0b'), "Hi There",
           "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
    expect("Jefe", "what do ya want for nothing?",
           "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
    expect(std::string(20, '\xaa'), std::string(50, '\xdd'),
           "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe");
    expect(strCounting, std::string(50, '\xcd'),
           "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b");
    expect(std::string(131, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First",
           "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
    expect(std::string(131, '\xaa'),
           "This is a test using a larger than block-size key and a larger than block-size data. "
           "The key needs to be hashed before being used by the HMAC algorithm.",
           "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2");
}

TEST_F(Text, HasACheckValueOfNothing)
{
    EXPECT_EQ(BillingUtil::getCheckValue("", ""),
              Base64OfHex("b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad"));
}

TEST_F(Text, HasTheCheckValueOfBytesBehindANul)
{
    EXPECT_NE(BillingUtil::getCheckValue("k", std::string("a\0b", 3)),
              BillingUtil::getCheckValue("k", "a"));
    EXPECT_NE(BillingUtil::getCheckValue(std::string("k\0l", 3), "a"),
              BillingUtil::getCheckValue("k", "a"));
}

TEST_F(Text, HasNoCheckValueWithoutMemory)
{
    g_tDoubles.bNoHmac = true;
    EXPECT_EQ(BillingUtil::getCheckValue("key", "a"), "");
    EXPECT_EQ(LoggedLines().back(), Source.error("getCheckValue", "no memory for the check value"));
    g_tDoubles = Doubles();
    g_tDoubles.iBiosLeft = 0;
    EXPECT_EQ(BillingUtil::getCheckValue("key", "a"), "");
    EXPECT_EQ(LoggedLines().back(), Source.error("Base64Encode", "b64 is NULL"));
}

// --- replacing ---

TEST_F(Text, HasBreaksForItsLineEnds)
{
    EXPECT_EQ(BillingUtil::StringReplace0D0A("a\r\nb\rc\n"), "a<br>b\rc\n");
    EXPECT_EQ(BillingUtil::StringReplace0D0A("\r\n"), "<br>");
    EXPECT_EQ(BillingUtil::StringReplace0D0A("\r\r\n\n"), "\r<br>\n");
    EXPECT_EQ(BillingUtil::StringReplace0D0A("a\r"), "a\r");
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(Text, HasRoomForAnyNumberOfBreaks)
{
    std::string strLines;
    std::string strBreaks;
    for (int i = 0; i < 10000; ++i) {
        strLines += "\r\n";
        strBreaks += "<br>";
    }
    EXPECT_EQ(BillingUtil::StringReplace0D0A(strLines), strBreaks);
}

TEST_F(Text, KeepsItsLinesWhenTheBreaksAreTakenBack)
{
    for (int i = 0; i < 2000; ++i) {
        const std::string strText = "x" + randomText(60, "\r\nab");
        std::string strBack = BillingUtil::StringReplace0D0A(strText);
        EXPECT_EQ(strBack.find("\r\n"), std::string::npos);
        for (std::size_t at = strBack.find("<br>"); at != std::string::npos;
             at = strBack.find("<br>", at)) {
            strBack.replace(at, 4, "\r\n");
        }
        EXPECT_EQ(strBack, strText);
    }
}

TEST_F(Text, ThatIsEmptyHasNoBreaksAndRaises)
{
    EXPECT_THROW(BillingUtil::StringReplace0D0A(""), std::logic_error);
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("StringReplace0D0A", "s.empty()")));
}

TEST_F(Text, HasItsMarkersReplacedInPlace)
{
    std::string strText = "x<<A>>y<<A>>";
    EXPECT_EQ(BillingUtil::StringReplaceAFlag(strText, "<<A>>1"), "x<<A>>1y<<A>>1");
    EXPECT_EQ(strText, "x<<A>>1y<<A>>1");
}

TEST_F(Text, LosesItsMarkersToAnEmptyValue)
{
    std::string strText = "<<A>><<A>>a<<A>";
    EXPECT_EQ(BillingUtil::StringReplaceAFlag(strText, ""), "a<<A>");
    std::string strNested = "<<<<A>>A>>";
    EXPECT_EQ(BillingUtil::StringReplaceAFlag(strNested, ""), "<<A>>") << "not looked at again";
}

TEST_F(Text, WithoutMarkersStaysAsItIs)
{
    std::string strText = "<<B>><<a>>";
    EXPECT_EQ(BillingUtil::StringReplaceAFlag(strText, "x"), "<<B>><<a>>");
    std::string strEmpty;
    EXPECT_EQ(BillingUtil::StringReplaceAFlag(strEmpty, "x"), "");
}

TEST_F(Text, IsWidenedByteByByteWithoutATerminator)
{
    unsigned short aOut[4] = {7, 7, 7, 7};
    BillingUtil::CharToWchar(aOut, "\xc3\xa9\xff");
    EXPECT_THAT(aOut, ElementsAre(0x00c3, 0x00a9, 0x00ff, 7));
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.info("CharToWchar", "charToWchar")));
}

TEST_F(Text, IsNotWidenedWithANullPointer)
{
    unsigned short aOut[1] = {7};
    BillingUtil::CharToWchar(nullptr, "a");
    BillingUtil::CharToWchar(aOut, nullptr);
    EXPECT_EQ(aOut[0], 7);
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(Text, IsTrimmedAsAWalkFromBothSidesDoesIt)
{
    for (int i = 0; i < 2000; ++i) {
        const std::string strText = randomText(20, " \tab");
        const std::string strChars = randomText(2, " \ta");
        const auto drop = [&](char c) { return strChars.find(c) != std::string::npos; };
        std::string strRight = strText;
        while (!strRight.empty() && drop(strRight.back())) {
            strRight.pop_back();
        }
        std::string strBoth = strRight;
        while (!strBoth.empty() && drop(strBoth.front())) {
            strBoth.erase(0, 1);
        }

        std::string strArgument = strText;
        EXPECT_EQ(BillingUtil::StringTrim(strArgument, strChars), strBoth);
        EXPECT_EQ(strArgument, strRight);
    }
}

// --- clock ---

TEST_F(Text, OfAnOrderIsTheTimeInUtc)
{
    EXPECT_EQ(BillingUtil::GetOrderTime(), "20240131235959");
    EXPECT_EQ(LoggedLines().back(),
              Source.info("GetOrderTime", "Current Order time = [20240131235959]"));
}

TEST_F(Text, OfAnOrderRaisesWithoutATime)
{
    g_tDoubles.bNoUtcTime = true;
    EXPECT_THROW(BillingUtil::GetOrderTime(), std::logic_error);
    EXPECT_EQ(LoggedLines().back(), Source.error("GetOrderTime", "Get current time error!"));
}

TEST_F(Text, OfATimestampIsInSeconds)
{
    EXPECT_EQ(BillingUtil::GetTimestamp(), 1706745600);
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.info("GetTimestamp",
                                                       "Seconds since Jan. 1, 1970: "
                                                       "1706745600\n")));
}

}  // namespace
