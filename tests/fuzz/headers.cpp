// headers.cpp - the header list that the connector makes from a header text.
#include "connector_fixture.h"
#include "fuzz.h"

namespace {

std::string trimmed(std::string strLine)
{
    const std::string strChars = "\r\n\t\v";
    strLine.erase(strLine.find_last_not_of(strChars) + 1);
    strLine.erase(0, strLine.find_first_not_of(strChars));
    return strLine;
}

// The option in the form that the wrapper's double records.
std::string expected(const std::string& strHeader)
{
    std::string strList = "75 ";
    std::size_t from = 0;
    while (from < strHeader.size()) {
        const std::size_t end = std::min(strHeader.find('\n', from), strHeader.size());
        const std::string strLine = strHeader.substr(from, end - from);
        if (strLine.find(':') != std::string::npos) {
            strList += "'" + trimmed(strLine) + "'";
        }
        from = end + 1;
    }
    return strList + "'Expect:'";
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static CHttpConnector oConnector;
    _BILLING_HTTP_REQ_INFO_T tInfo;
    tInfo.eMethod = HTTP_METHOD_GET;
    tInfo.strHeader = fuzz::text(data, size);
    MZCurl::MZCurlEasy oEasy;
    _BILLING_REQ_HANDLER_t tHandler{&tInfo, &oEasy};
    FUZZ_REQUIRE(ConnectorProbe{oConnector}.options(&tHandler));
    FUZZ_REQUIRE(Curl().options.back() == expected(tInfo.strHeader));
    Curl() = CurlDouble();
    fake::platform().clearLog();
    return 0;
}
