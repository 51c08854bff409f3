// fake_bus.h - a bus, a clock and a process that a test controls.
#pragma once

#include "BusFlow.h"
#include "BusLimits.h"
#include "log_matchers.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

constexpr const char* BUS = "org.freedesktop.DBus";

/// The question's name in the timeline.
std::string NameOf(BusQuestion eKind);

/// Records the requests of the flow control, in the timeline as well, and answers its questions.
class FakeBus : public CBusPort {
public:
    struct Question {
        BusQuestion eKind;
        std::string strName;
    };

    gint64 Now() const override { return iNow; }
    guint32 Random() override { return uRandom++; }
    bool Ask(BusQuestion eKind, const std::string& strName, guint32 uSerial) override
    {
        if (!bConnected) {
            return false;
        }
        EXPECT_TRUE(asked.emplace(uSerial, Question{eKind, strName}).second);
        Note(NameOf(eKind) + (strName.empty() ? "" : " " + strName));
        return true;
    }
    void Release(GDBusMessage* pMessage) override
    {
        released.emplace_back(g_dbus_message_get_destination(pMessage),
                              g_dbus_message_get_serial(pMessage));
        const gchar* szError = g_dbus_message_get_error_name(pMessage);
        errors.emplace_back(szError != nullptr ? szError : "");
        Note("release " + std::to_string(released.back().second));
    }
    void WakeAt(gint64 iTime) override
    {
        EXPECT_GE(iTime, iNow) << "a time that is over";
        Note("wake in " + std::to_string(iTime - iNow));
        if (!iWakeAt || iTime < *iWakeAt) {
            iWakeAt = iTime;
        }
    }
    void GiveBack() override
    {
        ++uGivenBack;
        Note("give back");
    }
    void EndService() override
    {
        ++uEnds;
        Note("end");
    }

    gint64 iNow = 1'000'000;
    guint32 uRandom = 7;
    bool bConnected = true;
    unsigned uEnds = 0;
    unsigned uGivenBack = 0;
    std::optional<gint64> iWakeAt;
    std::map<guint32, Question> asked;  ///< not answered yet
    std::vector<std::pair<std::string, guint32>> released;
    std::vector<std::string> errors;  ///< error name of each released reply
};

/// Fixture: the flow control on a FakeBus.
class ABusFlow : public ::testing::Test {
protected:
    ABusFlow() { fake::platform().reset(); }

    /// Sends a reply of that many bytes.
    /// @return true if the reply goes out at once
    bool reply(const std::string& strTo, std::size_t uBytes);
    /// Sends a reply with this body, like reply().
    bool replyWith(const std::string& strTo, GVariant* pBody);
    /// Number of open questions of that kind.
    std::size_t open(BusQuestion eKind) const;
    /// Answers the open question of that kind about that caller.
    /// @return whether the flow control took the answer as its own
    bool answer(BusQuestion eKind, const std::string& strName, BusMessagePtr pAnswer,
                const char* szFrom = BUS);
    /// The bus answers how many bytes the caller has not read.
    bool unread(const std::string& strName, guint32 uBytes);
    bool user(const std::string& strName, guint32 uUser);
    bool owner(const std::string& strName);
    bool fails(BusQuestion eKind, const std::string& strName, const char* szError,
               const char* szFrom = BUS);
    bool pong(const std::string& strName);
    /// Advances the clock and runs the timer at each time that was requested.
    void pass(gint64 iMilliseconds);
    /// The texts of the log so far.
    std::vector<std::string> texts() const;
    /// The steps since the last call of this: requests to the port and texts of the log, in one order.
    std::vector<std::string> steps();

    FakeBus m_oBus;
    CBusFlow m_oFlow{m_oBus};
    guint32 m_uSerial = 0;
};
