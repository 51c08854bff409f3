// BusMessage.h - helpers of the flow control for messages of the bus library: ownership, size, errors in
// place of replies, and answers to its own questions.
#pragma once

#include <gio/gio.h>

#include <cstddef>
#include <memory>
#include <string>

struct BusMessageUnref {
    void operator()(GDBusMessage* pMessage) const { g_object_unref(pMessage); }
};
using BusMessagePtr = std::unique_ptr<GDBusMessage, BusMessageUnref>;

/// @return bytes of a message's body; the body is not serialised for that
std::size_t BodyBytes(GDBusMessage* pMessage);

/// Makes an error LimitsExceeded that replaces a reply: it has the reply's serial and destination.
BusMessagePtr MakeRefusal(GDBusMessage* pReply, const char* szText);

/// The answer to a question of the flow control.
struct BusAnswer {
    std::string strSender;  ///< sender of the answer; empty where the message has none
    std::string strError;   ///< name of the error; empty when there is none
    guint32 uValue = 0;     ///< the number, or the entry "OutgoingBytes" of a dictionary
    bool bValue = false;    ///< the answer has a number
};

BusAnswer ReadAnswer(GDBusMessage* pMessage);
