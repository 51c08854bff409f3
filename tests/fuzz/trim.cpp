// trim.cpp - StringTrim. The input is the characters, a NUL, and the text.
#include "BillingUtil.h"
#include "fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::string strText = fuzz::text(data, size);
    const std::string strChars = fuzz::cut(strText);
    const auto drops = [&](char c) { return strChars.find(c) != std::string::npos; };

    std::string strArgument = strText;
    const std::string strBoth = BillingUtil::StringTrim(strArgument, strChars);

    FUZZ_REQUIRE(strText.compare(0, strArgument.size(), strArgument) == 0);
    FUZZ_REQUIRE(strArgument.empty() || !drops(strArgument.back()));
    for (std::size_t i = strArgument.size(); i < strText.size(); ++i) {
        FUZZ_REQUIRE(drops(strText[i]));
    }
    FUZZ_REQUIRE(strBoth.empty() || !drops(strBoth.front()));
    const std::size_t uLeft = strArgument.size() - strBoth.size();
    FUZZ_REQUIRE(strArgument.substr(uLeft) == strBoth);
    for (std::size_t i = 0; i < uLeft; ++i) {
        FUZZ_REQUIRE(drops(strArgument[i]));
    }
    return 0;
}
