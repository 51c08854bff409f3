// BillingUtil.cpp - getters that ask the platform at each call, and helpers for texts and encodings.
#include "BillingUtil.h"

#include "BillingLog.h"
#include "BillingOpenSsl.h"
#include "BillingString.h"
#include "BillingTime.h"

#include <platform/account.h>
#include <platform/config.h>
#include <platform/runtime_info.h>
#include <platform/system_info.h>

#include <sys/time.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace {

struct LanguageOfLocale {
    const char* szLocale;
    const char* szLanguage;
};

/// Searched in this order: a value that is the prefix of several locales takes the first one.
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

/// @return the language of the first locale that starts with the value. The empty value matches the first.
const char* LanguageOf(const std::string& strValue)
{
    for (const LanguageOfLocale& tRow : LANGUAGES) {
        if (std::strncmp(strValue.c_str(), tRow.szLocale, strValue.size()) == 0)
            return tRow.szLanguage;
    }
    return OTHER_LANGUAGE;
}

/// Copies and frees a text of the platform; null becomes the empty text.
std::string Taken(char* szText)
{
    const std::unique_ptr<char, decltype(&std::free)> pText(szText, &std::free);
    return pText ? std::string(pText.get()) : std::string();
}

// The exception that std::string throws when it is made from a null pointer.
[[noreturn]] void RejectNullText()
{
    throw std::logic_error("basic_string: construction from null is not valid");
}

bool WriteAll(BIO* pBio, const unsigned char* pBytes, unsigned int uiLength)
{
    while (uiLength > 0) {
        const int iWritten =
            BIO_write(pBio, pBytes, static_cast<int>(std::min<unsigned int>(uiLength, INT_MAX)));
        if (iWritten <= 0) {
            return false;
        }
        pBytes += iWritten;
        uiLength -= static_cast<unsigned int>(iWritten);
    }
    return BIO_flush(pBio) == 1;
}

/// Reads a text through a function that sets a pointer; its return code is ignored.
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

std::string BillingUtil::StringReplace0D0A(const std::string& s)
{
    if (s.empty()) {
        BILLING_REFUSED("s.empty()");
        RejectNullText();
    }
    std::string strReplaced;
    strReplaced.reserve(2 * s.size() + 1);
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\r' && i + 1 < s.size() && s[i + 1] == '\n') {
            strReplaced += "<br>";
            ++i;
        } else {
            strReplaced += s[i];
        }
    }
    return strReplaced;
}

std::string BillingUtil::StringReplaceAFlag(std::string& s, const std::string& value)
{
    static const std::string strMarker = "<<A>>";
    for (std::size_t uAt = s.find(strMarker); uAt != std::string::npos;
         uAt = s.find(strMarker, uAt + value.size())) {
        s.replace(uAt, strMarker.size(), value);
    }
    return s;
}

void BillingUtil::CharToWchar(unsigned short* pwszOut, const char* pszIn)
{
    if (pwszOut == nullptr || pszIn == nullptr) {
        return;
    }
    BILLING_INFO("charToWchar");
    for (; *pszIn != '\0'; ++pszIn, ++pwszOut) {
        *pwszOut = static_cast<unsigned char>(*pszIn);
    }
}

bool BillingUtil::Base64Encode(unsigned char* ptIn, unsigned int uiInLength, unsigned char* ptOut,
                               unsigned int* ptOutLength)
{
    if (ptIn == nullptr || ptOut == nullptr || ptOutLength == nullptr) {
        BILLING_ERROR("ptIn/ptOut/ptOutLength is NULL");
        return false;
    }
    const CBillingOpenSslErrors oErrors;
    const BillingOpenSslPtr<BIO> b64(BIO_new(BIO_f_base64()));
    if (b64 == nullptr) {
        BILLING_ERROR("b64 is NULL");
        return false;
    }
    BIO_set_flags(b64.get(), BIO_FLAGS_BASE64_NO_NL);
    const BillingOpenSslPtr<BIO> bmem(BIO_new(BIO_s_mem()));
    if (bmem == nullptr) {
        BILLING_ERROR("bmem is NULL");
        return false;
    }
    BIO_push(b64.get(), bmem.get());
    BUF_MEM* pEncoded = nullptr;
    if (!WriteAll(b64.get(), ptIn, uiInLength) || BIO_get_mem_ptr(bmem.get(), &pEncoded) != 1) {
        BILLING_ERROR("no memory for the encoded text");
        return false;
    }
    if (pEncoded->length > *ptOutLength) {
        BILLING_ERROR("out length is too small");
        return false;
    }
    std::copy_n(reinterpret_cast<const unsigned char*>(pEncoded->data), pEncoded->length, ptOut);
    *ptOutLength = static_cast<unsigned int>(pEncoded->length);
    return true;
}

std::string BillingUtil::getCheckValue(std::string key, std::string msg)
{
    BILLING_INFO("getCheckValue , key is %s ", key.c_str());
    BILLING_INFO("getCheckValue , msg is %s ", msg.c_str());
    const CBillingOpenSslErrors oErrors;
    const BillingOpenSslPtr<HMAC_CTX> pContext(HMAC_CTX_new());
    unsigned char aMac[EVP_MAX_MD_SIZE];
    unsigned int uiMacLength = 0;
    if (pContext == nullptr ||
        HMAC_Init_ex(pContext.get(), key.data(), static_cast<int>(key.size()), EVP_sha256(),
                     nullptr) != 1 ||
        HMAC_Update(pContext.get(), reinterpret_cast<const unsigned char*>(msg.data()),
                    msg.size()) != 1 ||
        HMAC_Final(pContext.get(), aMac, &uiMacLength) != 1) {
        BILLING_ERROR("no memory for the check value");
        return "";
    }
    unsigned char aText[256] = {};
    unsigned int uiTextLength = sizeof aText;
    if (!Base64Encode(aMac, uiMacLength, aText, &uiTextLength)) {
        return "";
    }
    std::string strCheckValue(reinterpret_cast<const char*>(aText), uiTextLength);
    BILLING_INFO("getCheckValue , checkValue is %s ", strCheckValue.c_str());
    return strCheckValue;
}

std::string BillingUtil::GetOrderTime()
{
    struct tm tTime {};
    if (!CBillingTime().GetGMTtime(&tTime)) {
        BILLING_ERROR("Get current time error!");
        RejectNullText();
    }
    char szTime[32] = {};
    BillingString::Snprintf(szTime, sizeof szTime, "%04d%02d%02d%02d%02d%02d", tTime.tm_year + 1900,
                            tTime.tm_mon + 1, tTime.tm_mday, tTime.tm_hour, tTime.tm_min,
                            tTime.tm_sec);
    BILLING_INFO("Current Order time = [%s]", szTime);
    return szTime;
}

int BillingUtil::GetTimestamp()
{
    timeval tNow{};
    gettimeofday(&tNow, nullptr);
    BILLING_INFO("Seconds since Jan. 1, 1970: %ld\n", static_cast<long>(tNow.tv_sec));
    return static_cast<int>(tNow.tv_sec);
}
