// time_test.cpp - CBillingTime at fixed moments and in fixed zones.
#include "BillingTime.h"
#include "log_matchers.h"

#include <gmock/gmock.h>
#include <sys/time.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const LinesOf Source{"BillingTime.cpp"};

constexpr long END_OF_JANUARY = 1706745599;  // 2024-01-31 23:59:59 UTC
constexpr long A_DAY = 86400;

// Times beyond the range of 32 bits exist only with a larger time_t.
constexpr bool BIG_TIME = sizeof(time_t) > 4;
constexpr bool BIG_LONG = sizeof(long) > 4;

struct Clock {
    time_t tNow = END_OF_JANUARY;
    int iUnreadable = 0;
    bool bNoUtcTime = false;
    const char* szKey = nullptr;  ///< the last key that was read
    int iZoneResult = 0;          ///< result of the zone service
};
Clock g_tClock;

}  // namespace

extern "C" {

time_t __wrap_time(time_t* out)
{
    return out != nullptr ? *out = g_tClock.tNow : g_tClock.tNow;
}

int __wrap_gettimeofday(timeval* now, void*)
{
    if (g_tClock.iUnreadable != 0) {
        return g_tClock.iUnreadable;
    }
    *now = {g_tClock.tNow, 999999};
    return 0;
}

struct tm* __real_gmtime_r(const time_t* seconds, struct tm* out);
struct tm* __wrap_gmtime_r(const time_t* seconds, struct tm* out)
{
    return g_tClock.bNoUtcTime ? nullptr : __real_gmtime_r(seconds, out);
}

int __real_vconf_get_int(const char* key, int* out);
int __wrap_vconf_get_int(const char* key, int* out)
{
    g_tClock.szKey = key;
    return __real_vconf_get_int(key, out);
}

int __real_mz_gettimezone(int* utcoff, int* dstoff, void* reserved);
int __wrap_mz_gettimezone(int* utcoff, int* dstoff, void* reserved)
{
    const int iResult = __real_mz_gettimezone(utcoff, dstoff, reserved);
    return iResult == 0 ? g_tClock.iZoneResult : iResult;
}

}  // extern "C"

namespace {

class Time : public ::testing::Test {
protected:
    Time()
    {
        fake::platform().reset();
        g_tClock = Clock();
        const char* const szZone = std::getenv("TZ");
        m_bHadZone = szZone != nullptr;
        m_strZone = m_bHadZone ? szZone : "";
        zone("UTC0");
    }
    ~Time() override
    {
        if (m_bHadZone) {
            zone(m_strZone);
        } else {
            unsetenv("TZ");
            tzset();
        }
    }

    // POSIX form, which needs no zone database. An offset west of UTC is positive in it.
    static void zone(const std::string& strZone)
    {
        setenv("TZ", strZone.c_str(), 1);
        tzset();
    }

    std::string date(int iFormat, int iDaysAgo)
    {
        char szDate[512] = "not written";
        m_oTime.GetFormatTime(szDate, iFormat, iDaysAgo);
        return szDate;
    }

    // Offset and name at this moment, for example "+0100 CET".
    std::string zoneAt(time_t tNow)
    {
        g_tClock.tNow = tNow;
        struct tm tLocal {};
        EXPECT_TRUE(m_oTime.GetTimeZone(&tLocal));
        char szText[64];
        std::strftime(szText, sizeof szText, "%H:%M %Z ", &tLocal);
        return szText + std::to_string(tLocal.tm_gmtoff);
    }

    CBillingTime m_oTime;

private:
    bool m_bHadZone;
    std::string m_strZone;
};

const char* const BERLIN = "CET-1CEST,M3.5.0,M10.5.0/3";
const char* const SYDNEY = "AEST-10AEDT,M10.1.0,M4.1.0/3";
const char* const KATHMANDU = "<+0545>-5:45";
const char* const NEW_YORK = "EST5EDT,M3.2.0,M11.1.0";

TEST_F(Time, IsTheClocks)
{
    EXPECT_EQ(m_oTime.Gettime(), END_OF_JANUARY);
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

// --- was the clock set ---

TEST_F(Time, HasBeenSetOrNot)
{
    int iValue = 7;
    EXPECT_EQ(m_oTime.GetTimeVconf(&iValue), 0);
    EXPECT_EQ(iValue, 1);
    fake::platform().config("memory/menu/network/set_time", "0");
    EXPECT_EQ(m_oTime.GetTimeVconf(&iValue), 0);
    EXPECT_EQ(iValue, 0);
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(Time, DoesNotSayWhetherItWasSetWhenTheKeyIsMissing)
{
    fake::platform().config("memory/menu/network/set_time", std::nullopt);
    int iValue = 7;
    EXPECT_EQ(m_oTime.GetTimeVconf(&iValue), -1);
    EXPECT_EQ(iValue, 7);
    // The line prints the address of the key as a number, not its text.
    const auto iKey = static_cast<int>(reinterpret_cast<std::intptr_t>(g_tClock.szKey));
    EXPECT_THAT(LoggedLines(),
                ElementsAre(Source.error("GetTimeVconf", "Failed to get vconf value key=(" +
                                                             std::to_string(iKey) + ")")));
}

TEST_F(Time, DoesNotSayToANullPointerWhetherItWasSet)
{
    EXPECT_EQ(m_oTime.GetTimeVconf(nullptr), 0) << "the same as success";
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.error("GetTimeVconf", "ptvalue is NULL"),
                                           Source.refused("GetTimeVconf", "NULL == ptvalue")));
}

// --- UTC ---

TEST_F(Time, IsBrokenDownInUtcWhateverTheZone)
{
    zone(NEW_YORK);
    struct tm tUtc {};
    EXPECT_TRUE(m_oTime.GetGMTtime(&tUtc));
    EXPECT_EQ(tUtc.tm_year, 124);
    EXPECT_EQ(tUtc.tm_mon, 0);
    EXPECT_EQ(tUtc.tm_mday, 31);
    EXPECT_EQ(tUtc.tm_hour, 23);
    EXPECT_EQ(tUtc.tm_wday, 3);
    EXPECT_EQ(tUtc.tm_yday, 30);
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.debug("GetGMTtime", "2024-1-31 23:59:59")));
}

TEST_F(Time, IsBrokenDownAtTheBeginningAndTheEndOf32Bits)
{
    struct tm tUtc {};
    g_tClock.tNow = 0;
    EXPECT_TRUE(m_oTime.GetGMTtime(&tUtc));
    g_tClock.tNow = INT32_MAX;
    EXPECT_TRUE(m_oTime.GetGMTtime(&tUtc));
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.debug("GetGMTtime", "1970-1-1 0:0:0"),
                                           Source.debug("GetGMTtime", "2038-1-19 3:14:7")));
}

TEST_F(Time, GoesOnAfter2038WhereThereIsMoreThan32Bits)
{
    if constexpr (BIG_TIME) {
        struct tm tUtc {};
        g_tClock.tNow = static_cast<time_t>(INT32_MAX + 1LL);
        EXPECT_TRUE(m_oTime.GetGMTtime(&tUtc));
        EXPECT_EQ(LoggedLines().back(), Source.debug("GetGMTtime", "2038-1-19 3:14:8"));
        EXPECT_EQ(m_oTime.GetLocalTime(), BIG_LONG ? INT32_MAX + 1LL : INT32_MAX);
        EXPECT_EQ(date(1, 0), BIG_LONG ? "2038-01-19 03:14:08" : "2038-01-19 03:14:07");
    } else {
        EXPECT_EQ(date(2, -INT_MAX), "2038-01-19") << "no day is after the last one";
    }
}

TEST_F(Time, InUtcIsRefusedToANullPointerAndWithoutAYear)
{
    EXPECT_FALSE(m_oTime.GetGMTtime(nullptr));
    struct tm tUtc {};
    tUtc.tm_year = 7;
    g_tClock.bNoUtcTime = true;
    EXPECT_FALSE(m_oTime.GetGMTtime(&tUtc));
    EXPECT_EQ(tUtc.tm_year, 7);
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.error("GetGMTtime", "p_tm is NULL"),
                                           Source.refused("GetGMTtime", "NULL == p_tm"),
                                           Source.error("GetGMTtime", "temp is NULL")));
}

// --- zones ---

TEST_F(Time, HasItsZonesOffsetAndName)
{
    zone(KATHMANDU);
    EXPECT_EQ(zoneAt(END_OF_JANUARY), "05:44 +0545 20700");
    EXPECT_THAT(LoggedLines(),
                ElementsAre(Source.debug("GetTimeZone", "Offset to GMT is 20700s.\n"),
                            Source.debug("GetTimeZone", "The time zone is '+0545'.\n")));
}

TEST_F(Time, ChangesToDaylightSavingAndBackInTheNorth)
{
    zone(BERLIN);
    const time_t tSpring = 1711846800;  // 2024-03-31 01:00:00 UTC
    EXPECT_EQ(zoneAt(tSpring - 1), "01:59 CET 3600");
    EXPECT_EQ(zoneAt(tSpring), "03:00 CEST 7200");
    const time_t tAutumn = 1729990800;  // 2024-10-27 01:00:00 UTC
    EXPECT_EQ(zoneAt(tAutumn - 1), "02:59 CEST 7200");
    EXPECT_EQ(zoneAt(tAutumn), "02:00 CET 3600");
}

TEST_F(Time, ChangesToDaylightSavingAndBackInTheSouth)
{
    zone(SYDNEY);
    const time_t tAutumn = 1712419200;  // 2024-04-06 16:00:00 UTC
    EXPECT_EQ(zoneAt(tAutumn - 1), "02:59 AEDT 39600");
    EXPECT_EQ(zoneAt(tAutumn), "02:00 AEST 36000");
    const time_t tSpring = 1728144000;  // 2024-10-05 16:00:00 UTC
    EXPECT_EQ(zoneAt(tSpring - 1), "01:59 AEST 36000");
    EXPECT_EQ(zoneAt(tSpring), "03:00 AEDT 39600");
}

TEST_F(Time, OfAZoneIsRefusedToANullPointer)
{
    EXPECT_FALSE(m_oTime.GetTimeZone(nullptr));
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.error("GetTimeZone", "p_tm is NULL"),
                                           Source.refused("GetTimeZone", "NULL == p_tm")));
}

TEST_F(Time, ComesBackFromItsLocalForm)
{
    for (const char* const szZone : {"UTC0", BERLIN, SYDNEY, KATHMANDU, NEW_YORK}) {
        zone(szZone);
        // Includes the hour that a change to daylight saving skips, and the one that occurs twice.
        for (const long lNow : {0L, END_OF_JANUARY, 1711846800L, 1729987200L, 1729990800L}) {
            g_tClock.tNow = lNow;
            EXPECT_EQ(m_oTime.GetLocalTime(), lNow) << szZone;
            EXPECT_EQ(LoggedLines().back(),
                      Source.debug("GetLocalTime", "localtime  " + std::to_string(lNow)));
        }
    }
}

TEST_F(Time, HasThePlatformsOffsets)
{
    int iUtc = 7;
    int iDst = 7;
    fake::platform().timeZone({{-18000, 3600}});
    EXPECT_EQ(m_oTime.GetMZTimeZone(&iUtc, &iDst), 0);
    EXPECT_EQ(iUtc, -18000);
    EXPECT_EQ(iDst, 3600);
    EXPECT_THAT(LoggedLines(),
                ElementsAre(Source.debug("GetMZTimeZone", "utcoff[-18000] dstoff[3600]")));
}

TEST_F(Time, HasThePlatformsOffsetsUnlessItSaysMinusOne)
{
    int iUtc = 7;
    int iDst = 7;
    fake::platform().timeZone({{-18000, 3600}});
    g_tClock.iZoneResult = 1;
    EXPECT_EQ(m_oTime.GetMZTimeZone(&iUtc, &iDst), 0);
    EXPECT_EQ(iUtc, -18000);
    EXPECT_EQ(iDst, 3600);
}

TEST_F(Time, HasNoOffsetsWhenThePlatformHasNone)
{
    int iUtc = 7;
    int iDst = 7;
    fake::platform().timeZone(std::nullopt);
    EXPECT_EQ(m_oTime.GetMZTimeZone(&iUtc, &iDst), -1);
    EXPECT_EQ(iUtc, 7);
    EXPECT_EQ(iDst, 7);
    EXPECT_EQ(LoggedLines().back(), Source.error("GetMZTimeZone", "mz_gettimezone return err"));
}

TEST_F(Time, HasNoOffsetsForANullPointer)
{
    int iOffset = 7;
    EXPECT_EQ(m_oTime.GetMZTimeZone(nullptr, &iOffset), 0) << "the same as success";
    EXPECT_EQ(m_oTime.GetMZTimeZone(&iOffset, nullptr), 0);
    EXPECT_EQ(m_oTime.GetMZTimeZone(nullptr, nullptr), 0) << "the first one is named";
    EXPECT_EQ(iOffset, 7);
    const Line tSaid = Source.error("GetMZTimeZone", "ptUtOff or ptDesOff or ptTimeZone is NULL");
    EXPECT_THAT(LoggedLines(),
                ElementsAre(tSaid, Source.refused("GetMZTimeZone", "NULL == ptUTCOff"), tSaid,
                            Source.refused("GetMZTimeZone", "NULL == ptDesOff"), tSaid,
                            Source.refused("GetMZTimeZone", "NULL == ptUTCOff")));
}

// --- elapsed time ---

TEST_F(Time, OfDayIsInSeconds)
{
    EXPECT_EQ(m_oTime.GetTimeOfDay(), END_OF_JANUARY);
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.debug("GetTimeOfDay", "timeOfDay 1706745599\n")));
}

TEST_F(Time, HasPassedSinceAStart)
{
    EXPECT_EQ(m_oTime.GetDuringTime(m_oTime.GetTimeOfDay() - 90), "90");
    EXPECT_EQ(m_oTime.GetDuringTime(END_OF_JANUARY + 1), "-1");
    EXPECT_EQ(m_oTime.GetDuringTime(0), "1706745599");
    EXPECT_EQ(m_oTime.GetDuringTime(LLONG_MIN), "-9223372035148030209") << "wraps";
}

TEST_F(Time, HasNotPassedWhenTheClockCannotBeRead)
{
    for (const int iError : {-1, 1}) {
        g_tClock.iUnreadable = iError;
        EXPECT_EQ(m_oTime.GetTimeOfDay(), -1);
        EXPECT_EQ(m_oTime.GetDuringTime(0), "");
    }
    const Line tLine = Source.error("GetTimeOfDay", "get timeOfDay fail");
    EXPECT_THAT(LoggedLines(), ElementsAre(tLine, tLine, tLine, tLine));
}

// --- dates ---

TEST_F(Time, IsWrittenToTheSecondOrToTheDay)
{
    EXPECT_EQ(date(1, 0), "2024-01-31 23:59:59");
    EXPECT_EQ(date(2, 1), "2024-01-30");
    EXPECT_EQ(date(0, 0), "2024-01-31");
    EXPECT_EQ(date(-1, 0), "2024-01-31") << "only 1 asks for seconds";
}

TEST_F(Time, IsWrittenWithItsLines)
{
    date(1, 2);
    const auto debug = [](const std::string& strText) {
        return Source.debug("GetFormatTime", strText);
    };
    EXPECT_THAT(LoggedLines(),
                ElementsAre(debug("iFormatToSec:1,iNDaysAgo:2"),
                            Source.debug("GetLocalTime", "localtime  1706745599"),
                            debug("iValue:[1](0--not set,1--set),time = " +
                                  std::to_string(END_OF_JANUARY - 2 * A_DAY)),
                            debug("format to second"), debug("strTime:2024-01-29 23:59:59")));
    fake::platform().clearLog();
    date(2, 0);
    EXPECT_THAT(LoggedLines(), Contains(debug("format to day")));
}

TEST_F(Time, IsWrittenAlsoWhenNobodyKnowsWhetherItWasSet)
{
    fake::platform().config("memory/menu/network/set_time", std::nullopt);
    EXPECT_EQ(date(2, 0), "2024-01-31");
    EXPECT_THAT(
        LoggedLines(),
        Contains(Source.debug("GetFormatTime", "iValue:[0](0--not set,1--set),time = 1706745599")));
}

TEST_F(Time, IsWrittenAcrossLeapDaysAndYears)
{
    EXPECT_EQ(date(2, -29), "2024-02-29");
    EXPECT_EQ(date(2, -30), "2024-03-01");
    EXPECT_EQ(date(2, 31), "2023-12-31");
}

TEST_F(Time, IsWrittenWithTwoDigitsButTheYearWithBlanks)
{
    EXPECT_EQ(date(2, 118), "2023-10-05");
    if constexpr (BIG_TIME) {
        EXPECT_EQ(date(2, 374039), " 999-12-31");
        EXPECT_EQ(date(1, 735716), "   9-10-05 23:59:59");
    }
}

TEST_F(Time, IsCountedInDaysOf24HoursAlsoAcrossAChange)
{
    zone(BERLIN);
    g_tClock.tNow = 1711839600;  // 2024-03-31 00:00:00 in Berlin, the day that has 23 hours
    EXPECT_EQ(date(1, -1), "2024-04-01 01:00:00");
    EXPECT_EQ(date(1, 1), "2024-03-30 00:00:00");
}

TEST_F(Time, IsWrittenForAnyNumberOfDays)
{
    if constexpr (BIG_TIME) {
        EXPECT_EQ(date(2, INT_MAX), "-5877587-07-23");
        EXPECT_EQ(date(2, INT_MIN), "5881634-08-11");
        EXPECT_EQ(date(1, INT_MIN), "5881634-08-11 23:59:59") << "the longest";
    } else {
        EXPECT_EQ(date(2, INT_MAX), "1901-12-13");
        EXPECT_EQ(date(2, INT_MIN), "2038-01-19");
    }
}

TEST_F(Time, IsNotWrittenToANullPointer)
{
    m_oTime.GetFormatTime(nullptr, 2, 0);
    EXPECT_THAT(LoggedLines(),
                Contains(LinesOf{"BillingString.cpp"}.refused("Snprintf", "str == NULL")));
}

}  // namespace
