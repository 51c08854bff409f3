// BusPort.h - what the flow control needs from the bus, the clock and the process.
#pragma once

#include <glib.h>

#include <string>

typedef struct _GDBusMessage GDBusMessage;

/// A question of the flow control.
enum class BusQuestion {
    UNREAD,  ///< to the bus: how many bytes has this caller not read?
    PING,    ///< to the caller: Peer.Ping
    OWNER,   ///< to the bus: does this caller still exist?
    USER,    ///< to the bus: which user does this caller belong to?
    PROOF,   ///< to the bus: does it still read from the service?
    WATCH,   ///< to the bus: report clients that come and go
};

class CBusPort {
public:
    CBusPort() = default;
    CBusPort(const CBusPort&) = delete;
    CBusPort& operator=(const CBusPort&) = delete;
    virtual ~CBusPort() = default;

    /// @return milliseconds of a monotonic clock; never 0
    virtual gint64 Now() const = 0;
    /// @return a number that callers cannot predict
    virtual guint32 Random() = 0;
    /// Sends a question.
    /// @param strName the caller that it is about
    /// @param uSerial the message's serial
    /// @return false when it cannot be sent
    virtual bool Ask(BusQuestion eKind, const std::string& strName, guint32 uSerial) = 0;
    /// Sends a message that was held back; the filter lets it pass.
    virtual void Release(GDBusMessage* pMessage) = 0;
    /// Schedules CBusFlow::Timer for this time, or earlier.
    virtual void WakeAt(gint64 iTime) = 0;
    /// Returns free memory to the system.
    virtual void GiveBack() = 0;
    /// Ends the service as SIGTERM does.
    virtual void EndService() = 0;
};
