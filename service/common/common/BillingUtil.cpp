// BillingUtil.cpp - each getter asks the platform at the moment of the call.
#include "BillingUtil.h"

#include "BillingLog.h"

#include <platform/account.h>
#include <platform/config.h>
#include <platform/runtime_info.h>
#include <platform/system_info.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

struct LanguageOfLocale {
    const char* szLocale;
    const char* szLanguage;
};

/// In matching order: a value that is the beginning of several locales takes the first one.
constexpr LanguageOfLocale LANGUAGES[] = {
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
constexpr const char* OTHER_LANGUAGE = "en";

/// The language of the first locale that the value is, or begins. The empty value begins them all.
const char* LanguageOf(const std::string& strValue)
{
    for (const LanguageOfLocale& tRow : LANGUAGES) {
        if (std::strncmp(strValue.c_str(), tRow.szLocale, strValue.size()) == 0)
            return tRow.szLanguage;
    }
    return OTHER_LANGUAGE;
}

/// Copies and frees a text of the platform's. Null is the empty text.
std::string Taken(char* szText)
{
    const std::unique_ptr<char, decltype(&std::free)> pText(szText, &std::free);
    return pText ? std::string(pText.get()) : std::string();
}

/// Reads a text whose reader fills a pointer; the pointer alone tells whether there is one.
std::string AccountText(int (*pfnRead)(char** out))
{
    char* szText = nullptr;
    pfnRead(&szText);
    return Taken(szText);
}

}  // namespace

std::string BillingUtil::GetLanguage()
{
    std::string strLanguage;
    char* szValue = nullptr;
    const int iResult = runtime_info_get_value_string(RUNTIME_INFO_KEY_LANGUAGE, &szValue);
    if (iResult != 0) {
        BILLING_ERROR("faied to get RUNTIME_INFO_kEY_LANGUAGE(%d),ret=%d",
                      RUNTIME_INFO_KEY_LANGUAGE, iResult);
    } else {
        strLanguage = Taken(szValue);
        BILLING_DEBUG("get RUNTIME_INFO_KEY_LANGUAGE(%d),value=%s", RUNTIME_INFO_KEY_LANGUAGE,
                      strLanguage.c_str());
    }
    BILLING_INFO("strLanguage before convert is %s", strLanguage.c_str());
    strLanguage = LanguageOf(strLanguage);
    BILLING_INFO(" language after convert is [%s]", strLanguage.c_str());
    return strLanguage;
}

std::string BillingUtil::GetAToken()
{
    return Taken(vconf_get_str("db/comss/atoken"));
}

std::string BillingUtil::GetDUID()
{
    return Taken(vconf_get_str("db/comss/hwduid"));
}

std::string BillingUtil::GetCountryCode()
{
    return Taken(vconf_get_str("db/comss/countrycode"));
}

std::string BillingUtil::GetModelID()
{
    return Taken(vconf_get_str("db/comss/modelid"));
}

std::string BillingUtil::GetSSOGUID()
{
    return AccountText(sso_get_guid);
}

std::string BillingUtil::GetUserToken()
{
    return AccountText(sso_get_auth_token);
}

std::string BillingUtil::GetSSOUID()
{
    static_assert(sizeof(sso_login_info_s) == 1408 && offsetof(sso_login_info_s, user_id) == 256,
                  "the platform fills a record of this shape");
    std::string strUid;
    sso_login_info_s tInfo{};
    if (sso_get_login_info(&tInfo) == 0)
        strUid.assign(tInfo.user_id, strnlen(tInfo.user_id, sizeof tInfo.user_id));
    BILLING_INFO("BillingUtil::GetSSOUID : %s", strUid.c_str());
    return strUid;
}

int BillingUtil::GetiVantorSerType()
{
    constexpr int DEFAULT_TYPE = 1;
    int iType = DEFAULT_TYPE;
    if (system_info_get_value_int(SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE, &iType) != 0) {
        BILLING_DEBUG(
            "+++++++++++++Failed to get value for iType[SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE]");
        return DEFAULT_TYPE;
    }
    BILLING_DEBUG(
        "+++++++++++++Return value of type[SYSTEM_INFO_KEY_VANTOR_SERVER_TYPE] is "
        "[%d]!+++++++++++++",
        iType);
    return iType;
}

std::string BillingUtil::StringTrim(std::string& s, const std::string& chars)
{
    s.erase(s.find_last_not_of(chars) + 1);
    std::string strTrimmed = s;
    strTrimmed.erase(0, strTrimmed.find_first_not_of(chars));
    return strTrimmed;
}
