// BusPort.h - what the flow control needs of the bus, the clock and the process.
#pragma once

#include <glib.h>

#include <string>

typedef struct _GDBusMessage GDBusMessage;

/// A question of the service's own.
enum class BusQuestion {
    UNREAD,  ///< to the bus: how much has this caller not read?
    PING,    ///< to the caller
    OWNER,   ///< to the bus: is this caller still there?
    USER,    ///< to the bus: whose is it?
    PROOF,   ///< to the bus: does it still read?
    WATCH,   ///< to the bus: tell of clients that come and go
};

class CBusPort {
public:
    CBusPort() = default;
    CBusPort(const CBusPort&) = delete;
    CBusPort& operator=(const CBusPort&) = delete;
    virtual ~CBusPort() = default;

    /// Milliseconds, not 0, that only grow.
    virtual gint64 Now() const = 0;
    /// A number that nobody can guess.
    virtual guint32 Random() = 0;
    /// Sends a question. @param strName the caller that it is about @param uSerial its serial
    /// @return false when it cannot be sent
    virtual bool Ask(BusQuestion eKind, const std::string& strName, guint32 uSerial) = 0;
    /// Sends a message that has waited, past the flow control.
    virtual void Release(GDBusMessage* pMessage) = 0;
    /// Has CBusFlow::Timer called then, or earlier.
    virtual void WakeAt(gint64 iTime) = 0;
    /// Gives free memory back to the system.
    virtual void GiveBack() = 0;
    /// Ends the service as SIGTERM does.
    virtual void EndService() = 0;
};
