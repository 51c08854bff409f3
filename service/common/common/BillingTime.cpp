// BillingTime.cpp - each function reads the clock when it is called.
#include "BillingTime.h"

#include "BillingLog.h"
#include "BillingString.h"

#include <platform/config.h>
#include <platform/timezone.h>

#include <sys/time.h>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace {

constexpr const char* KEY_SET_TIME = "memory/menu/network/set_time";
constexpr long long SECONDS_OF_A_DAY = 86400;
constexpr int DATE_BYTES = 512;

/// @return the nearest time that the type can hold; 32 bits end in 2038
template <class Type>
Type Bounded(long long llTime)
{
    using Limits = std::numeric_limits<Type>;
    return static_cast<Type>(std::clamp<long long>(llTime, Limits::min(), Limits::max()));
}

}  // namespace

int CBillingTime::GetTimeVconf(int* ptvalue)
{
    if (ptvalue == nullptr) {
        BILLING_ERROR("ptvalue is NULL");
        BILLING_RETURN_IF(NULL == ptvalue, 0);
    }
    int iValue = 0;
    if (vconf_get_int(KEY_SET_TIME, &iValue) != 0) {
        // The logged number is the address of the key's text, cut to an int.
        BILLING_ERROR("Failed to get vconf value key=(%d)",
                      static_cast<int>(reinterpret_cast<std::intptr_t>(KEY_SET_TIME)));
        return -1;
    }
    *ptvalue = iValue;
    return 0;
}

time_t CBillingTime::Gettime()
{
    return time(nullptr);
}

bool CBillingTime::GetGMTtime(struct tm* p_tm)
{
    if (p_tm == nullptr) {
        BILLING_ERROR("p_tm is NULL");
        BILLING_RETURN_IF(NULL == p_tm, false);
    }
    const time_t tNow = time(nullptr);
    struct tm temp {};
    if (gmtime_r(&tNow, &temp) == nullptr) {
        BILLING_ERROR("temp is NULL");
        return false;
    }
    BILLING_DEBUG("%d-%d-%d %d:%d:%d", temp.tm_year + 1900, temp.tm_mon + 1, temp.tm_mday,
                  temp.tm_hour, temp.tm_min, temp.tm_sec);
    *p_tm = temp;
    return true;
}

bool CBillingTime::GetTimeZone(struct tm* p_tm)
{
    if (p_tm == nullptr) {
        BILLING_ERROR("p_tm is NULL");
        BILLING_RETURN_IF(NULL == p_tm, false);
    }
    const time_t tNow = time(nullptr);
    struct tm temp {};
    localtime_r(&tNow, &temp);
    BILLING_DEBUG("Offset to GMT is %lds.\n", temp.tm_gmtoff);
    BILLING_DEBUG("The time zone is '%s'.\n", temp.tm_zone != nullptr ? temp.tm_zone : "");
    *p_tm = temp;
    return true;
}

long CBillingTime::GetLocalTime()
{
    const time_t tNow = time(nullptr);
    struct tm temp {};
    localtime_r(&tNow, &temp);
    const auto lTime = Bounded<long>(mktime(&temp));
    BILLING_DEBUG("localtime  %ld", lTime);
    return lTime;
}

long long CBillingTime::GetTimeOfDay()
{
    timeval tNow{};
    if (gettimeofday(&tNow, nullptr) != 0) {
        BILLING_ERROR("get timeOfDay fail");
        return -1;
    }
    const long long llTime = tNow.tv_sec;
    BILLING_DEBUG("timeOfDay %lld\n", llTime);
    return llTime;
}

std::string CBillingTime::GetDuringTime(long long llStart)
{
    const long long llNow = GetTimeOfDay();
    if (llNow == -1) {
        return "";
    }
    // Unsigned arithmetic: the difference to a start far before 1970 may overflow, and wraps then.
    const auto llElapsed = static_cast<long long>(static_cast<unsigned long long>(llNow) -
                                                  static_cast<unsigned long long>(llStart));
    char szText[32] = {};
    BillingString::Snprintf(szText, sizeof szText, "%lld", llElapsed);
    return szText;
}

int CBillingTime::GetMZTimeZone(int* ptUTCOff, int* ptDesOff)
{
    if (ptUTCOff == nullptr || ptDesOff == nullptr) {
        BILLING_ERROR("ptUtOff or ptDesOff or ptTimeZone is NULL");
        BILLING_RETURN_IF(NULL == ptUTCOff, 0);
        BILLING_RETURN_IF(NULL == ptDesOff, 0);
    }
    int iUtcOff = 0;
    int iDstOff = 0;
    if (mz_gettimezone(&iUtcOff, &iDstOff, nullptr) == -1) {
        BILLING_ERROR("mz_gettimezone return err");
        return -1;
    }
    *ptUTCOff = iUtcOff;
    *ptDesOff = iDstOff;
    BILLING_DEBUG("utcoff[%d] dstoff[%d]", iUtcOff, iDstOff);
    return 0;
}

void CBillingTime::GetFormatTime(char* pszOut, int iFormatToSec, int iNDaysAgo)
{
    BILLING_DEBUG("iFormatToSec:%d,iNDaysAgo:%d", iFormatToSec, iNDaysAgo);
    int iValue = 0;
    GetTimeVconf(&iValue);
    const auto tTime = Bounded<time_t>(GetLocalTime() - SECONDS_OF_A_DAY * iNDaysAgo);
    BILLING_DEBUG("iValue:[%d](0--not set,1--set),time = %ld", iValue, static_cast<long>(tTime));
    struct tm temp {};
    localtime_r(&tTime, &temp);
    const int iYear = temp.tm_year + 1900;
    const int iMonth = temp.tm_mon + 1;
    if (iFormatToSec == 1) {
        BILLING_DEBUG("format to second");
        BillingString::Snprintf(pszOut, DATE_BYTES, "%4d-%02d-%02d %02d:%02d:%02d", iYear, iMonth,
                                temp.tm_mday, temp.tm_hour, temp.tm_min, temp.tm_sec);
    } else {
        BILLING_DEBUG("format to day");
        BillingString::Snprintf(pszOut, DATE_BYTES, "%4d-%02d-%02d", iYear, iMonth, temp.tm_mday);
    }
    BILLING_DEBUG("strTime:%s", pszOut != nullptr ? pszOut : "");
}
