// BusUsers.h - whose the callers are, as the log tells it: a unique name says nothing once its owner has left the bus.
#pragma once

#include <glib.h>

#include <deque>
#include <map>
#include <string>
#include <unordered_map>

/// Thread: one at a time; the caller sees to it. Times are milliseconds of the port's clock.
class CBusUsers {
public:
    /// Has its user been asked for? At most BusLimits::TOLD_CALLERS are remembered.
    bool Knows(const std::string& strName) const { return m_told.count(strName) != 0; }
    /// Its user is being asked for.
    void Asked(const std::string& strName);
    /// Tells of a caller whose user was asked for: once, and at most BusLimits::TOLD_LINES of one user
    /// within BusLimits::REPORT_PERIOD_MS.
    void IsOf(const std::string& strName, guint32 uUser, gint64 iNow);

private:
    struct Lines {
        gint64 iPeriod = 0;
        unsigned uTold = 0;
        unsigned uLeftOut = 0;
    };

    bool MayTell(guint32 uUser, gint64 iNow);

    std::unordered_map<std::string, bool> m_told;  // false: its user is not known yet
    std::deque<std::string> m_order;               // of m_told, the oldest first
    std::map<guint32, Lines> m_lines;
};
