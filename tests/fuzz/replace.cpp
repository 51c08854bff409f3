// replace.cpp - the two text replacements. The input is the value, a NUL, and the text.
#include "BillingUtil.h"
#include "fake_platform.h"
#include "fuzz.h"

#include <stdexcept>

namespace {

void breaks(const std::string& strText)
{
    bool bRaised = false;
    std::string strReplaced;
    try {
        strReplaced = BillingUtil::StringReplace0D0A(strText);
    } catch (const std::logic_error&) {
        bRaised = true;
    }
    fake::platform().clearLog();
    FUZZ_REQUIRE(bRaised == strText.empty());
    // Compares text and result side by side: only line ends are replaced.
    std::size_t at = 0;
    for (std::size_t i = 0; i < strText.size(); ++i) {
        if (strText.compare(i, 2, "\r\n") == 0) {
            FUZZ_REQUIRE(strReplaced.compare(at, 4, "<br>") == 0);
            at += 4;
            ++i;
        } else {
            FUZZ_REQUIRE(at < strReplaced.size() && strReplaced[at] == strText[i]);
            ++at;
        }
    }
    FUZZ_REQUIRE(at == strReplaced.size());
}

void markers(const std::string& strText, const std::string& strValue)
{
    const std::string strMarker = "<<A>>";
    std::string strArgument = strText;
    const std::string strResult = BillingUtil::StringReplaceAFlag(strArgument, strValue);
    FUZZ_REQUIRE(strResult == strArgument);
    std::string strExpected;
    std::size_t from = 0;
    for (std::size_t at = strText.find(strMarker); at != std::string::npos;
         at = strText.find(strMarker, from)) {
        strExpected += strText.substr(from, at - from) + strValue;
        from = at + strMarker.size();
    }
    FUZZ_REQUIRE(strResult == strExpected + strText.substr(from));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string strText = fuzz::text(data, size);
    breaks(strText);
    const std::string strValue = fuzz::cut(strText);
    markers(strText, strValue);
    return 0;
}
