// filter_doubles.h - doubles of the bus library, the clock and the process for the tests of CBusFilter.
#pragma once

#include "BusMessage.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

constexpr const char* THE_BUS = "org.freedesktop.DBus";

/// A message that the filter sent, with what held at that moment.
struct SentMessage {
    BusMessagePtr pMessage;
    GDBusSendMessageFlags eFlags;
    std::size_t uLocks;
};

/// What the doubles answer, and what they were asked.
struct FilterDoubles {
    const gchar* szUniqueName = ":1.7";
    bool bSends = true;
    gint64 iMicroseconds = 5'000'000;
    bool bForeignSource = false;  ///< the source that is dispatched is not the filter's

    GDBusConnection* pConnection = nullptr;  ///< of the installed filter
    GDBusMessageFilterFunction pfnFilter = nullptr;
    gpointer pFilter = nullptr;
    GDestroyNotify pfnEnd = nullptr;
    std::vector<SentMessage> sent;
    std::vector<guint> timers;  ///< milliseconds of each timer that was made
    std::vector<int> signals;
    unsigned uTrims = 0;
};

FilterDoubles& Filter();

/// A filter on a connection that is an address and nothing more.
class ABusFilter : public ::testing::Test {
protected:
    ABusFilter();
    ~ABusFilter() override;

    void install();
    void end();

    /// A message passes the filter. The message that comes out; null when it was taken.
    BusMessagePtr incoming(BusMessagePtr pMessage) { return pass(std::move(pMessage), TRUE); }
    BusMessagePtr outgoing(BusMessagePtr pMessage) { return pass(std::move(pMessage), FALSE); }

    /// The bus, or somebody else, answers the question at that place of what was sent.
    BusMessagePtr answer(std::size_t uQuestion, GVariant* pBody, const char* szFrom = THE_BUS);
    BusMessagePtr fails(std::size_t uQuestion, const char* szError);
    BusMessagePtr unread(std::size_t uQuestion, guint32 uBytes);

    /// Time passes on the double's clock, and a timer that is there runs once.
    void pass(gint64 iMilliseconds);

private:
    static BusMessagePtr pass(BusMessagePtr pMessage, gboolean bIncoming);
};

BusMessagePtr MakeCall(const std::string& strSender, std::size_t uBodyBytes = 0,
                       bool bWantsAnswer = true);
BusMessagePtr MakeReply(const std::string& strTo, std::size_t uBodyBytes);
