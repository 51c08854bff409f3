// util_test.cpp - BillingUtil: the result of each getter for the platform's answer, the whole language table,
// and trimming.
#include "BillingUtil.h"
#include "log_matchers.h"

#include <platform/account.h>
#include <platform/system_info.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const LinesOf Source{"BillingUtil.cpp"};

/// Functions that replace the fake platform's. An empty one leaves the call to the fake.
struct Doubles {
    std::function<int(char**)> guid;
    std::function<int(char**)> authToken;
    std::function<int(sso_login_info_s*)> loginInfo;
    std::function<int(int*)> serverType;
};
Doubles g_doubles;

}  // namespace

extern "C" {

int __real_sso_get_guid(char** out);
int __real_sso_get_auth_token(char** out);
int __real_sso_get_login_info(sso_login_info_s* info);
int __real_system_info_get_value_int(system_info_key_e key, int* out);

int __wrap_sso_get_guid(char** out)
{
    return g_doubles.guid ? g_doubles.guid(out) : __real_sso_get_guid(out);
}

int __wrap_sso_get_auth_token(char** out)
{
    return g_doubles.authToken ? g_doubles.authToken(out) : __real_sso_get_auth_token(out);
}

int __wrap_sso_get_login_info(sso_login_info_s* info)
{
    return g_doubles.loginInfo ? g_doubles.loginInfo(info) : __real_sso_get_login_info(info);
}

int __wrap_system_info_get_value_int(system_info_key_e key, int* out)
{
    return g_doubles.serverType ? g_doubles.serverType(out)
                                : __real_system_info_get_value_int(key, out);
}

}  // extern "C"

namespace {

using Row = std::pair<std::string, std::string>;

/// Locale and language, in the order of the search.
const std::vector<Row> LANGUAGES = {
    {"ko_KR.utf8", "ko"},    {"en_US.utf8", "en"},    {"fr_CA.utf8", "fr-US"},
    {"es_MX.utf8", "es-US"}, {"pt_BR.utf8", "pt-US"}, {"bg_BG.utf8", "bg"},
    {"hr_HR.utf8", "hr"},    {"da_DK.utf8", "da"},    {"nl_NL.utf8", "nl"},
    {"fi_FI.utf8", "fi"},    {"fr_FR.utf8", "fr"},    {"de_DE.utf8", "de"},
    {"el_GR.utf8", "el"},    {"hu_HU.utf8", "hu"},    {"it_IT.utf8", "it"},
    {"nn_NO.utf8", "no"},    {"en_GB.utf8", "en-GB"}, {"pl_PL.utf8", "pl"},
    {"pt_PT.utf8", "pt"},    {"ro_RO.utf8", "ro"},    {"ru_RU.utf8", "ru"},
    {"sr_RS.utf8", "sr"},    {"sk_SK.utf8", "sk"},    {"es_ES.utf8", "es"},
    {"sv_SE.utf8", "sv"},    {"tr_TR.utf8", "tr"},    {"zh_CN.utf8", "zh-CN"},
    {"zh_HK.utf8", "zh-HK"}, {"zh_TW.utf8", "zh-TW"}, {"ja_JP.utf8", "ja"},
    {"hy_AM.utf8", "hy"},    {"ka_GE.utf8", "ka"},    {"cs_CZ.utf8", "cs"},
    {"et_EE.utf8", "et"},    {"lv_LV.utf8", "lv"},    {"lt_LT.utf8", "lt"},
    {"ar_AE.utf8", "ar"},    {"fa_IR.utf8", "fa"},    {"th_TH.utf8", "th"},
    {"he_IL.utf8", "he"},    {"id_ID.utf8", "id"},    {"vi_VN.utf8", "vi"},
    {"ur_PK.utf8", "ur"},    {"af_ZA.utf8", "af"},    {"zu_ZA.utf8", "zu"},
    {"xh_ZA.utf8", "xh"},    {"yo_NG.utf8", "yo"},    {"ig_NG.utf8", "ig"},
    {"ha_NG.utf8", "ha"},    {"sw_KE.utf8", "sw"},    {"am_ET.utf8", "am"},
    {"ta_IN.utf8", "ta"},    {"sl_SI.utf8", "sl"},    {"sq_AL.utf8", "sq"},
    {"uk_UA.utf8", "uk"},    {"kk_KZ.utf8", "kk"},    {"uz_UZ.utf8", "uz"},
    {"az_AZ.utf8", "az"},    {"mn_MN.utf8", "mn"},    {"bs_BA.utf8", "bs"},
    {"bn_IN.utf8", "bn"},    {"bh_IN.utf8", "bh"},    {"te_IN.utf8", "te"},
    {"tu_IN.utf8", "tu"},    {"hi_IN.utf8", "hi"},    {"mr_IN.utf8", "mr"},
    {"ne_NP.utf8", "ne"},    {"kok_IN.utf8", "kok"},  {"ml_IN.utf8", "ml"},
    {"mai_IN.utf8", "mai"},  {"mni_IN.utf8", "mni"},  {"gu_IN.utf8", "gu"},
    {"kn_IN.utf8", "kn"},    {"ks_IN.utf8", "ks"},    {"ms_MY.utf8", "ms"},
    {"or_IN.utf8", "or"},    {"pa_PK.utf8", "pa"},    {"sat_IN.utf8", "sat"},
    {"sa_IN.utf8", "sa"},    {"sd_IN.utf8", "sd"},    {"as_IN.utf8", "as"},
    {"my_MM.utf8", "my"},    {"km_KH.utf8", "km"},    {"ckb_IQ.utf8", "ckb"},
    {"ku_TR.utf8", "ku"},    {"mk_MK.utf8", "mk"},
};

class Device : public ::testing::Test {
protected:
    Device()
    {
        fake::platform().reset();
        g_doubles = Doubles();
    }

    static std::string language(const std::string& strValue)
    {
        fake::platform().language(strValue);
        return BillingUtil::GetLanguage();
    }
};

TEST_F(Device, HasTheLanguageOfItsLocale)
{
    ASSERT_EQ(LANGUAGES.size(), 86u);
    for (const auto& [strLocale, strLanguage] : LANGUAGES)
        EXPECT_EQ(language(strLocale), strLanguage) << strLocale;
}

TEST_F(Device, WithTheBeginningOfALocaleHasTheLanguageOfTheFirstThatFits)
{
    for (const auto& [strLocale, strLanguage] : LANGUAGES) {
        for (std::size_t length = 1; length < strLocale.size(); ++length) {
            const std::string strValue = strLocale.substr(0, length);
            const auto first = std::find_if(
                LANGUAGES.begin(), LANGUAGES.end(),
                [&](const Row& row) { return row.first.compare(0, length, strValue) == 0; });
            EXPECT_EQ(language(strValue), first->second) << strValue;
        }
    }
}

TEST_F(Device, HasTheLanguageThatTheServerKnowsForTheRegionsThatMatter)
{
    EXPECT_EQ(language("en_US.utf8"), "en");
    EXPECT_EQ(language("en_GB.utf8"), "en-GB");
    EXPECT_EQ(language("fr_CA.utf8"), "fr-US");
    EXPECT_EQ(language("es_MX.utf8"), "es-US");
    EXPECT_EQ(language("pt_BR.utf8"), "pt-US");
    EXPECT_EQ(language("nn_NO.utf8"), "no");
    EXPECT_EQ(language("mk_MK.utf8"), "mk");
}

TEST_F(Device, WithAnUnknownLocaleSpeaksEnglish)
{
    EXPECT_EQ(language("de_AT.utf8"), "en");
    EXPECT_EQ(language("en_US.UTF-8"), "en");
    EXPECT_EQ(language("ko_KR.utf8 "), "en");
    EXPECT_EQ(language("KO_KR.utf8"), "en");
}

TEST_F(Device, WithOneLetterHasTheLanguageOfTheFirstLocaleThatBeginsSo)
{
    EXPECT_EQ(language("e"), "en");
    EXPECT_EQ(language("k"), "ko");
    EXPECT_EQ(language("z"), "zh-CN");
}

TEST_F(Device, LogsHowTheLanguageWasFound)
{
    EXPECT_EQ(language("fr_CA.utf8"), "fr-US");
    EXPECT_THAT(LoggedLines(),
                ElementsAre(Source.debug("GetLanguage",
                                         "get RUNTIME_INFO_KEY_LANGUAGE(0),value=fr_CA.utf8"),
                            Source.info("GetLanguage", "strLanguage before convert is fr_CA.utf8"),
                            Source.info("GetLanguage", " language after convert is [fr-US]")));
    EXPECT_THAT(fake::platform().calls(), ElementsAre("runtime_info_get_value_string 0"));
}

TEST_F(Device, WithoutALanguageSpeaksKoreanAndSaysWhy)
{
    fake::platform().language(std::nullopt);
    EXPECT_EQ(BillingUtil::GetLanguage(), "ko");
    EXPECT_THAT(
        LoggedLines(),
        ElementsAre(Source.error("GetLanguage", "faied to get RUNTIME_INFO_kEY_LANGUAGE(0),ret=-1"),
                    Source.info("GetLanguage", "strLanguage before convert is "),
                    Source.info("GetLanguage", " language after convert is [ko]")));
}

struct Getter {
    const char* szName;
    std::string (*pfnGet)();
    const char* szCall;
    const char* szValue;  ///< value on a device where everything is set
};

class ADeviceText : public Device, public ::testing::WithParamInterface<Getter> {
protected:
    /// Sets the platform value that the getter reads.
    static void set(std::optional<std::string> value)
    {
        const std::string strCall = GetParam().szCall;
        if (strCall == "sso_get_guid")
            fake::platform().guid(std::move(value));
        else if (strCall == "sso_get_auth_token")
            fake::platform().authToken(std::move(value));
        else
            fake::platform().config(strCall.substr(strCall.find(' ') + 1), std::move(value));
    }
};

INSTANTIATE_TEST_SUITE_P(
    Getters, ADeviceText,
    ::testing::Values(
        Getter{"AToken", BillingUtil::GetAToken, "vconf_get_str db/comss/atoken", "atoken-1"},
        Getter{"DUID", BillingUtil::GetDUID, "vconf_get_str db/comss/hwduid", "duid-1"},
        Getter{"CountryCode", BillingUtil::GetCountryCode, "vconf_get_str db/comss/countrycode",
               "US"},
        Getter{"ModelID", BillingUtil::GetModelID, "vconf_get_str db/comss/modelid", "model-1"},
        Getter{"SSOGUID", BillingUtil::GetSSOGUID, "sso_get_guid", "guid-1"},
        Getter{"UserToken", BillingUtil::GetUserToken, "sso_get_auth_token", "auth-token-1"}),
    [](const auto& getter) { return getter.param.szName; });

TEST_P(ADeviceText, IsReadOnceAndReturnedWithoutALine)
{
    EXPECT_EQ(GetParam().pfnGet(), GetParam().szValue);
    EXPECT_THAT(fake::platform().calls(), ElementsAre(GetParam().szCall));
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_P(ADeviceText, IsEmptyWhenThePlatformHasNone)
{
    set(std::nullopt);
    EXPECT_EQ(GetParam().pfnGet(), "");
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_P(ADeviceText, IsTheOneOfTheMomentAndPassesUnchanged)
{
    const std::string strValue = "  a=b&c \"\\ \xc3\xa9" + std::string(10000, 'x');
    set(strValue);
    EXPECT_EQ(GetParam().pfnGet(), strValue);
    set("other");
    EXPECT_EQ(GetParam().pfnGet(), "other");
}

TEST_F(Device, TakesAnAccountTextWhateverTheReturnCode)
{
    const auto fails = [](char** out) {
        EXPECT_EQ(*out, nullptr);
        *out = strdup("given all the same");
        return -1;
    };
    const auto succeedsWithout = [](char**) { return 0; };
    g_doubles.guid = fails;
    g_doubles.authToken = fails;
    EXPECT_EQ(BillingUtil::GetSSOGUID(), "given all the same");
    EXPECT_EQ(BillingUtil::GetUserToken(), "given all the same");
    g_doubles.guid = succeedsWithout;
    g_doubles.authToken = succeedsWithout;
    EXPECT_EQ(BillingUtil::GetSSOGUID(), "");
    EXPECT_EQ(BillingUtil::GetUserToken(), "");
}

TEST_F(Device, LogsTheUserId)
{
    EXPECT_EQ(BillingUtil::GetSSOUID(), "uid-1");
    EXPECT_THAT(LoggedLines(),
                ElementsAre(Source.info("GetSSOUID", "BillingUtil::GetSSOUID : uid-1")));
    EXPECT_THAT(fake::platform().calls(), ElementsAre("sso_get_login_info"));
}

TEST_F(Device, WithNobodySignedInHasNoUserIdAndLogsThat)
{
    fake::platform().loginId(std::nullopt);
    EXPECT_EQ(BillingUtil::GetSSOUID(), "");
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.info("GetSSOUID", "BillingUtil::GetSSOUID : ")));
}

TEST_F(Device, IgnoresAUserIdThatCameWithAFailure)
{
    g_doubles.loginInfo = [](sso_login_info_s* info) {
        strcpy(info->user_id, "stale");
        return 1;
    };
    EXPECT_EQ(BillingUtil::GetSSOUID(), "");
}

TEST_F(Device, AsksForTheLoginWithARecordOf1408Zeros)
{
    g_doubles.loginInfo = [](sso_login_info_s* info) {
        const auto* const pBytes = reinterpret_cast<const char*>(info);
        EXPECT_EQ(std::string(pBytes, sizeof *info), std::string(1408, '\0'));
        strcpy(reinterpret_cast<char*>(info) + 256, "at byte 256");
        return 0;
    };
    EXPECT_EQ(BillingUtil::GetSSOUID(), "at byte 256");
}

TEST_F(Device, ReadsNoMoreOfAUserIdThanItsField)
{
    g_doubles.loginInfo = [](sso_login_info_s* info) {
        memset(static_cast<void*>(info), 'x', sizeof *info);
        return 0;
    };
    EXPECT_EQ(BillingUtil::GetSSOUID(), std::string(256, 'x'));
}

TEST_F(Device, HasTheServerTypeThatIsSetAndLogsIt)
{
    for (const int iType : {1, 2, 0, 3, -1}) {
        fake::platform().clearLog();
        fake::platform().clearCalls();
        fake::platform().serverType(iType);
        EXPECT_EQ(BillingUtil::GetiVantorSerType(), iType);
        EXPECT_THAT(
            LoggedLines(),
            ElementsAre(Source.debug(
                "GetiVantorSerType",
                "+++++++++++++Return value of type[SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE] is [" +
                    std::to_string(iType) + "]!+++++++++++++")));
        EXPECT_THAT(fake::platform().calls(), ElementsAre("system_info_get_value_int 126"));
    }
}

TEST_F(Device, WithoutAServerTypeHasType1)
{
    const auto failure = Source.debug(
        "GetiVantorSerType",
        "+++++++++++++Failed to get value for iType[SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE]");
    fake::platform().serverType(std::nullopt);
    EXPECT_EQ(BillingUtil::GetiVantorSerType(), 1);
    g_doubles.serverType = [](int* out) {
        EXPECT_EQ(*out, 1);
        *out = 77;
        return -1;
    };
    EXPECT_EQ(BillingUtil::GetiVantorSerType(), 1);
    EXPECT_THAT(LoggedLines(), ElementsAre(failure, failure));
}

struct Trimmed {
    std::string strResult;
    std::string strArgument;
};

Trimmed Trim(std::string strText, const std::string& strChars)
{
    std::string strResult = BillingUtil::StringTrim(strText, strChars);
    return {strResult, strText};
}

MATCHER_P2(Gives, result, argument, "")
{
    *result_listener << ::testing::PrintToString(arg.strResult) << " and leaves "
                     << ::testing::PrintToString(arg.strArgument);
    return arg.strResult == result && arg.strArgument == argument;
}

TEST(StringTrim, ReturnsTheTextTrimmedOnBothSidesAndTrimsTheArgumentOnTheRightOnly)
{
    EXPECT_THAT(Trim("  both  ", " "), Gives("both", "  both"));
    EXPECT_THAT(Trim("\r\n\ta: b c\v\r\n", "\r\n\t\v"), Gives("a: b c", "\r\n\ta: b c"));
    EXPECT_THAT(Trim("left  ", " "), Gives("left", "left"));
    EXPECT_THAT(Trim("  right", " "), Gives("right", "  right"));
}

TEST(StringTrim, KeepsWhatStandsInside)
{
    EXPECT_THAT(Trim("a  b", " "), Gives("a  b", "a  b"));
    EXPECT_THAT(Trim("xyx", "x"), Gives("y", "xy"));
}

TEST(StringTrim, LeavesNothingOfATextThatIsAllToBeTrimmed)
{
    EXPECT_THAT(Trim(" \t \t", "\t "), Gives("", ""));
    EXPECT_THAT(Trim("", " "), Gives("", ""));
}

TEST(StringTrim, LeavesEverythingWithNoCharactersToTrim)
{
    EXPECT_THAT(Trim("  as it is  ", ""), Gives("  as it is  ", "  as it is  "));
}

TEST(StringTrim, TreatsANulAsAnyOtherCharacter)
{
    const std::string strNul(1, '\0');
    EXPECT_THAT(Trim(strNul + "a" + strNul + "b" + strNul, strNul),
                Gives("a" + strNul + "b", strNul + "a" + strNul + "b"));
}

}  // namespace
