// BusReport.h - the log's lines about callers that are held back or refused. Their number within a
// minute is bounded, whatever the callers do.
#pragma once

#include <glib.h>

#include <cstddef>
#include <map>
#include <string>

struct BusCaller;

/// Thread: one at a time; the user of this class serialises the calls. Times: ms of the port's clock.
class CBusReport {
public:
    /// @return whether lines about another caller may begin; if not, the caller is counted as left out
    bool MayBegin(gint64 iNow);

    void HeldBack(const BusCaller& tCaller) const;
    void GoesOn(const BusCaller& tCaller) const;
    void HasLeft(const BusCaller& tCaller) const;
    /// Logs that the bus does not tell what is unread, and that callers are asked instead.
    /// @param szError the bus's error
    void AsksCallers(const char* szError) const;
    /// Logs that callers cannot be asked either.
    /// @param szError the error of the ping
    void AsksNobody(const char* szError) const;
    void BusIsSilent() const;

    /// Counts a refused call.
    /// @param uBytes as for CBusFlow::RefusedCall
    /// @return true when the bus has to be asked for the caller's user: a line waits for it
    bool RefusedCall(const std::string& strName, std::size_t uBytes, gint64 iNow);
    /// Logs the refused calls of a caller whose user has become known, if a line waits for it.
    void IsOf(const std::string& strName, const std::string& strUser);
    /// Logs the refusals that have ended.
    /// @return when to call again, 0 for never
    gint64 TellOver(gint64 iNow);

private:
    struct Refused {
        std::string strUser;
        std::size_t uBytes = 0;  ///< of the first refused call; 0: too many were queued
        unsigned uCalls = 0;
        gint64 iLast = 0;
        bool bTold = false;
    };

    std::map<std::string, Refused> m_refused;
    gint64 m_iPeriod = 0;
    unsigned m_uBegun = 0;
    unsigned m_uLeftOut = 0;
};
