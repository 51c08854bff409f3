// BusReport.h - what the log says of callers that are held back, refused or gone: at most so much of
// it a minute, whatever they do.
#pragma once

#include <glib.h>

#include <cstddef>
#include <map>
#include <string>

struct BusCaller;

/// Thread: one at a time; the caller sees to it. Times are milliseconds of the port's clock.
class CBusReport {
public:
    /// May another story begin? If not, it is counted among those that are left out.
    bool MayBegin(gint64 iNow);

    void HeldBack(const BusCaller& tCaller) const;
    void GoesOn(const BusCaller& tCaller) const;
    void HasLeft(const BusCaller& tCaller) const;
    /// The bus does not say what is unread. @param szError how it refused
    void AsksCallers(const char* szError) const;
    /// Nobody says it.
    void AsksNobody(const char* szError) const;
    void BusIsSilent() const;

    /// A call was refused. @param uBytes as of CBusFlow::RefusedCall @return true when whose the caller is has to be asked
    bool RefusedCall(const std::string& strName, std::size_t uBytes, gint64 iNow);
    /// Tells of the caller's refused calls, if that waits for it.
    void IsOf(const std::string& strName, const std::string& strUser);
    /// Tells of those that are over. @return when to look again, 0 for never
    gint64 TellOver(gint64 iNow);

private:
    struct Refused {
        std::string strUser;
        std::size_t uBytes = 0;  ///< of the first one; 0: too many waited
        unsigned uCalls = 0;
        gint64 iLast = 0;
        bool bTold = false;
    };

    std::map<std::string, Refused> m_refused;
    gint64 m_iPeriod = 0;
    unsigned m_uBegun = 0;
    unsigned m_uLeftOut = 0;
};
