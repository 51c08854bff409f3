// BusUsers.h - the user of each caller in the log: a unique name tells nothing once its owner has left the bus.
#pragma once

#include <glib.h>

#include <deque>
#include <map>
#include <string>
#include <unordered_map>

/// Thread: one at a time; the user of this class serialises the calls. Times: ms of the port's clock.
class CBusUsers {
public:
    /// @return whether the bus was asked for its user; at most BusLimits::TOLD_CALLERS are remembered
    bool Knows(const std::string& strName) const { return m_told.count(strName) != 0; }
    /// Records that the bus is being asked for its user.
    void Asked(const std::string& strName);
    /// Logs the user of a caller: once for each caller, and at most BusLimits::TOLD_LINES lines of one user
    /// within BusLimits::REPORT_PERIOD_MS.
    void IsOf(const std::string& strName, guint32 uUser, gint64 iNow);

private:
    struct Lines {
        gint64 iPeriod = 0;
        unsigned uTold = 0;
        unsigned uLeftOut = 0;
    };

    bool MayTell(guint32 uUser, gint64 iNow);

    std::unordered_map<std::string, bool> m_told;  // true: its user is known
    std::deque<std::string> m_order;               // keys of m_told, oldest first
    std::map<guint32, Lines> m_lines;
};
