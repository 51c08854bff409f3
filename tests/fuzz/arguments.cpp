// arguments.cpp - the arguments of a call in the query, the body and the log. The input is application,
// customer, invoice and check value, with a NUL between them.
#include "ParametersText.h"
#include "fuzz.h"
#include "protocol_layer.h"

#include <json/json.h>

#include <sstream>

namespace {

// The bus carries only valid UTF-8.
std::string valid(const std::string& strText)
{
    const std::unique_ptr<gchar, decltype(&g_free)> made(
        g_utf8_make_valid(strText.data(), static_cast<gssize>(strText.size())), g_free);
    return made.get();
}

class Layer : public ProtocolLayer {
public:
    explicit Layer(std::string strRest)
    {
        for (std::string* const pText :
             {&m_item.strAppId, &m_item.strCustomId, &m_item.strInvoiceId, &m_item.strCheckValue}) {
            *pText = valid(fuzz::cut(strRest));
        }
    }

    void asksForProducts()
    {
        FUZZ_REQUIRE(products());
        const std::string strUrl = got().strUrl;
        const std::string strAsked =
            "/billing/product/v2/products?appid=" + m_item.strAppId +
            "&guid=g&uid=u&storeid=1&storeprodcode=1&countrycode=US&languagecode=en&"
            "checkvalue=" +
            m_item.strCheckValue;
        FUZZ_REQUIRE(strUrl.rfind("https://", 0) == 0);
        FUZZ_REQUIRE(strUrl.substr(strUrl.find('/', 8)) == strAsked);
    }

    void confirms()
    {
        FUZZ_REQUIRE(confirm());
        std::istringstream in(posted().strBody);
        Json::Value oBody;
        FUZZ_REQUIRE(Json::parseFromStream(Json::CharReaderBuilder(), in, &oBody, nullptr));
        FUZZ_REQUIRE(oBody.size() == 9);
        FUZZ_REQUIRE(oBody["appId"] == m_item.strAppId);
        FUZZ_REQUIRE(oBody["customId"] == m_item.strCustomId);
        FUZZ_REQUIRE(oBody["invoiceId"] == m_item.strInvoiceId);
    }

    // The log prints hidden arguments as blanks of the same size.
    void isPrinted() const
    {
        fake::platform().logShowsPrivate(false);
        GVariant* const pArguments = g_variant_ref_sink(
            g_variant_new("(ss)", m_item.strAppId.c_str(), m_item.strCustomId.c_str()));
        const std::string strBlanks = CParametersText(pArguments).Get();
        FUZZ_REQUIRE(strBlanks.find_first_not_of(' ') == std::string::npos);
        const std::size_t uSize = m_item.strAppId.size() + m_item.strCustomId.size() + 8;
        FUZZ_REQUIRE(strBlanks.size() == std::min<std::size_t>(uSize, (8 << 10) + 64));
        g_variant_unref(pArguments);
    }

private:
    void TestBody() override {}
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Layer oLayer(fuzz::text(data, size));
    oLayer.asksForProducts();
    oLayer.confirms();
    oLayer.isPrinted();
    return 0;
}
