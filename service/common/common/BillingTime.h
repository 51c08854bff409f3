// BillingTime.h - the real-time clock and the device's time zone.
#pragma once

#include <ctime>
#include <string>

/// Thread: any for all functions. Values are logged at debug level, failures as errors.
class CBillingTime {
public:
    CBillingTime() = default;
    virtual ~CBillingTime() = default;
    CBillingTime(const CBillingTime&) = delete;
    CBillingTime& operator=(const CBillingTime&) = delete;

    /// Tells whether the device's clock has been set.
    /// @param[out] ptvalue 1 yes, 0 no; written on success only
    /// @return 0, also for a null pointer; -1 when the platform does not tell
    int GetTimeVconf(int* ptvalue);
    /// @return seconds since 1970
    time_t Gettime();
    /// @param[out] p_tm the time in UTC
    /// @return false for a null pointer, or a time whose year does not fit
    bool GetGMTtime(struct tm* p_tm);
    /// @param[out] p_tm the local time, with the zone's offset and name
    /// @return false for a null pointer
    bool GetTimeZone(struct tm* p_tm);
    /// @return seconds since 1970, converted to local time and back
    long GetLocalTime();
    /// @return seconds since 1970; -1 when the clock cannot be read
    long long GetTimeOfDay();
    /// @param llStart seconds since 1970
    /// @return seconds since llStart as decimal text; empty when the clock cannot be read
    std::string GetDuringTime(long long llStart);
    /// @param[out] ptUTCOff, ptDesOff seconds; written on success only
    /// @return 0, also for a null pointer; -1 when the platform does not tell
    int GetMZTimeZone(int* ptUTCOff, int* ptDesOff);
    /// Writes the local date of iNDaysAgo days ago (of a future day when negative).
    /// @param pszOut room for 512 bytes
    /// @param iFormatToSec 1: with the time of day
    void GetFormatTime(char* pszOut, int iFormatToSec, int iNDaysAgo);
};
