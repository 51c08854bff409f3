// BusMessage.h - what the flow control does with messages of the bus library: owns them, weighs them,
// makes errors in their place, reads answers to its own questions.
#pragma once

#include <gio/gio.h>

#include <cstddef>
#include <memory>
#include <string>

struct BusMessageUnref {
    void operator()(GDBusMessage* pMessage) const { g_object_unref(pMessage); }
};
using BusMessagePtr = std::unique_ptr<GDBusMessage, BusMessageUnref>;

/// Bytes of a message's body. Its parts need not be serialised for that.
std::size_t BodyBytes(GDBusMessage* pMessage);

/// An error of the bus's kind "LimitsExceeded" in place of an answer. It has the serial of the answer
/// and goes to the same caller.
BusMessagePtr MakeRefusal(GDBusMessage* pReply, const char* szText);

/// What came back for a question of the service's own.
struct BusAnswer {
    std::string strSender;  ///< who answered; empty where the message does not say
    std::string strError;   ///< the error's name; empty when there is none
    guint32 uValue = 0;     ///< the number, or "OutgoingBytes" of a dictionary
    bool bValue = false;    ///< the answer has one
};

BusAnswer ReadAnswer(GDBusMessage* pMessage);
