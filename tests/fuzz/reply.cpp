// reply.cpp - the text of a reply on the bus, made from a server's body. The input is a limit in two bytes,
// and the body.
#include "ReplyText.h"
#include "fuzz.h"

#include <glib.h>

#include <memory>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 2) {
        return 0;
    }
    const std::size_t uLimit = data[0] + 256U * data[1];
    std::string strText = fuzz::text(data + 2, size - 2);
    const std::unique_ptr<gchar, decltype(&g_free)> expected(
        g_utf8_make_valid(strText.data(), static_cast<gssize>(strText.size())), g_free);
    const std::string strExpected = expected.get();

    const bool bFits = MakeReplyText(strText, uLimit);

    FUZZ_REQUIRE(bFits == (strExpected.size() <= uLimit));
    FUZZ_REQUIRE(strText == (bFits ? strExpected : ""));
    return 0;
}
