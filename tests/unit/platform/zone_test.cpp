// zone_test.cpp - the time zone's two offsets at known moments.
#include "linux/zone.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <utility>

namespace {

constexpr time_t kJanuary2024 = 1705320000;  // 2024-01-15 12:00 UTC
constexpr time_t kJuly2024 = 1721044800;     // 2024-07-15 12:00 UTC

std::pair<int, int> offsets(const char* zone, time_t moment)
{
    setenv("TZ", zone, 1);
    tzset();
    zone::Offsets found;
    EXPECT_TRUE(zone::offsetsAt(moment, found));
    return {found.standard, found.daylight};
}

TEST(Zone, HasDaylightSavingInItsSummerOnly)
{
    const char* const north = "CET-1CEST,M3.5.0,M10.5.0/3";
    EXPECT_EQ(offsets(north, kJanuary2024), std::pair(3600, 0));
    EXPECT_EQ(offsets(north, kJuly2024), std::pair(3600, 3600));
    const char* const south = "AEST-10AEDT,M10.1.0,M4.1.0/3";
    EXPECT_EQ(offsets(south, kJanuary2024), std::pair(36000, 3600));
    EXPECT_EQ(offsets(south, kJuly2024), std::pair(36000, 0));
}

TEST(Zone, MayBeWestOfUtcAndSaveHalfAnHour)
{
    EXPECT_EQ(offsets("EST5EDT,M3.2.0,M11.1.0", kJuly2024), std::pair(-18000, 3600));
    EXPECT_EQ(offsets("<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", kJanuary2024),
              std::pair(37800, 1800));
    EXPECT_EQ(offsets("NST3:30", kJuly2024), std::pair(-12600, 0));
    EXPECT_EQ(offsets("UTC0", kJuly2024), std::pair(0, 0));
}

TEST(Zone, ThatNeverLeavesDaylightSavingGivesItsWholeOffset)
{
    const std::pair<int, int> found = offsets("AAA5BBB4,J1/0,J365/25", kJuly2024);
    EXPECT_EQ(found.first + found.second, -14400);
}

TEST(Zone, CannotBeBrokenDownBeyondTheYearsOfTheCalendar)
{
    // The largest 32-bit time is still a year of the calendar; the largest 64-bit time is not.
    zone::Offsets found;
    EXPECT_EQ(zone::offsetsAt(std::numeric_limits<time_t>::max(), found), sizeof(time_t) == 4);
}

TEST(Zone, IsNamedByAFileARuleOrNothing)
{
    for (const char* const name :
         {"", "UTC", "GMT", ":", "CET-1CEST,M3.5.0,M10.5.0/3", "EST5", "<+03>-3", "UTC0"}) {
        setenv("TZ", name, 1);
        EXPECT_TRUE(zone::isNamed()) << name;
    }
    for (const char* const name :
         {"No/Such", "Nowhere", "/etc/no-such-file", "/etc", "-1", "5", "No/Such5", ":Nowhere"}) {
        setenv("TZ", name, 1);
        EXPECT_FALSE(zone::isNamed()) << name;
    }
    unsetenv("TZ");
    EXPECT_TRUE(zone::isNamed());
}

}  // namespace
