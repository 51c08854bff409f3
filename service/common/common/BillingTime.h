// BillingTime.h - readings of the real-time clock and of the device's time zone.
#pragma once

#include <ctime>
#include <string>

/// Thread: any for all of it. What is read is logged at debug level, what fails as an error.
class CBillingTime {
public:
    CBillingTime() = default;
    virtual ~CBillingTime() = default;
    CBillingTime(const CBillingTime&) = delete;
    CBillingTime& operator=(const CBillingTime&) = delete;

    /// Has the device's clock been set? @param[out] ptvalue 1 yes, 0 no; set on success only
    /// @return 0, also for a null pointer; -1 when the platform does not tell
    int GetTimeVconf(int* ptvalue);
    /// @return seconds since 1970
    time_t Gettime();
    /// @param[out] p_tm the time in UTC @return false for a null pointer, or a time that no year can
    /// hold
    bool GetGMTtime(struct tm* p_tm);
    /// @param[out] p_tm the local time, with its offset and the name of its zone @return false for a
    /// null pointer
    bool GetTimeZone(struct tm* p_tm);
    /// @return seconds since 1970, by way of the local time and back
    long GetLocalTime();
    /// @return seconds since 1970; -1 when the clock cannot be read
    long long GetTimeOfDay();
    /// @param llStart seconds since 1970 @return seconds since then, as decimal text; empty when the
    /// clock cannot be read
    std::string GetDuringTime(long long llStart);
    /// @param[out] ptUTCOff, ptDesOff seconds; set on success only @return 0, also for a null pointer;
    /// -1 when the platform does not tell
    int GetMZTimeZone(int* ptUTCOff, int* ptDesOff);
    /// Writes the local date of the day that is iNDaysAgo days back (of one ahead, when negative).
    /// @param pszOut 512 bytes @param iFormatToSec 1: with the time of the day
    void GetFormatTime(char* pszOut, int iFormatToSec, int iNDaysAgo);
};
