// base64.cpp - Base64Encode compared with GLib's, with enough room and with too little.
#include "BillingUtil.h"
#include "fake_platform.h"
#include "fuzz.h"

#include <glib.h>

#include <memory>
#include <vector>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::unique_ptr<gchar, decltype(&g_free)> expected(g_base64_encode(data, size), g_free);
    const std::string strExpected = expected.get();
    std::vector<unsigned char> in(data, data + size);
    in.push_back(0);  // gives an empty input a valid pointer
    const auto uiIn = static_cast<unsigned int>(size);
    const auto uiNeeded = static_cast<unsigned int>(strExpected.size());

    std::vector<unsigned char> out(uiNeeded + 1, '#');
    unsigned int uiLength = uiNeeded;
    FUZZ_REQUIRE(BillingUtil::Base64Encode(in.data(), uiIn, out.data(), &uiLength));
    FUZZ_REQUIRE(uiLength == uiNeeded);
    FUZZ_REQUIRE(std::string(out.begin(), out.end()) == strExpected + "#");
    if (uiNeeded > 0) {
        uiLength = uiNeeded - 1;
        FUZZ_REQUIRE(!BillingUtil::Base64Encode(in.data(), uiIn, out.data(), &uiLength));
        FUZZ_REQUIRE(uiLength == uiNeeded - 1);
    }
    fake::platform().clearLog();
    return 0;
}
