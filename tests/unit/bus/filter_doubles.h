// filter_doubles.h - doubles of the bus library, the clock and the process for the tests of CBusFilter.
#pragma once

#include "BusMessage.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

constexpr const char* THE_BUS = "org.freedesktop.DBus";

/// A message that the filter sent, with the state at that moment.
struct SentMessage {
    BusMessagePtr pMessage;
    GDBusSendMessageFlags eFlags;
    std::size_t uLocks;
    bool bReleased;  ///< marked as released
};

/// Answers and arguments of the replaced functions.
struct FilterDoubles {
    const gchar* szUniqueName = ":1.7";
    bool bSends = true;
    gint64 iMicroseconds = 5'000'000;
    bool bForeignSource = false;  ///< true if the dispatched source is not the filter's

    GDBusConnection* pConnection = nullptr;  ///< connection on which the filter is installed
    GDBusMessageFilterFunction pfnFilter = nullptr;
    gpointer pFilter = nullptr;
    GDestroyNotify pfnEnd = nullptr;
    std::vector<SentMessage> sent;
    std::vector<guint> timers;    ///< interval of each timer that was made, in milliseconds
    std::size_t uTimersGone = 0;  ///< number of timers without a reference
    std::vector<int> signals;
    unsigned uTrims = 0;
};

FilterDoubles& Filter();

/// Fixture: a filter on a connection that is only an address.
class ABusFilter : public ::testing::Test {
protected:
    ABusFilter();
    ~ABusFilter() override;

    void install();
    void end();

    /// Passes a message through the filter.
    /// @return the message that comes out; null when the filter took it
    BusMessagePtr incoming(BusMessagePtr pMessage) { return pass(std::move(pMessage), TRUE); }
    BusMessagePtr outgoing(BusMessagePtr pMessage) { return pass(std::move(pMessage), FALSE); }

    /// Delivers an answer to a sent question, from the bus or from another sender.
    /// @param uQuestion index among the sent messages
    BusMessagePtr answer(std::size_t uQuestion, GVariant* pBody, const char* szFrom = THE_BUS);
    BusMessagePtr fails(std::size_t uQuestion, const char* szError);
    BusMessagePtr unread(std::size_t uQuestion, guint32 uBytes);

    /// Advances the double's clock and runs the current timer once.
    void pass(gint64 iMilliseconds);

private:
    static BusMessagePtr pass(BusMessagePtr pMessage, gboolean bIncoming);
};

BusMessagePtr MakeCall(const std::string& strSender, std::size_t uBodyBytes = 0,
                       bool bWantsAnswer = true);
BusMessagePtr MakeReply(const std::string& strTo, std::size_t uBodyBytes);
