// bus_ledger_test.cpp - the account of each caller, without the flow control.
#include "BusLedger.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace BusLimits;

class ALedger : public ::testing::Test {
protected:
    BusCaller& caller(const std::string& strName = ":1.1") { return m_oLedger.Of(strName, m_iNow); }
    void hold(BusCaller& tCaller, std::size_t uBytes)
    {
        m_oLedger.Hold(tCaller, BusMessagePtr(g_dbus_message_new()), uBytes, m_iNow);
    }

    CBusLedger m_oLedger;
    gint64 m_iNow = 1000;
};

TEST_F(ALedger, KnowsACallersNameAndItsFirstReply)
{
    const BusCaller& tCaller = caller();
    EXPECT_EQ(tCaller.strName, ":1.1");
    EXPECT_EQ(tCaller.iProgress, 1000);
    EXPECT_EQ(tCaller.iLastSeen, 1000);
    m_iNow = 2000;
    EXPECT_EQ(&caller(), &tCaller);
    EXPECT_EQ(tCaller.iProgress, 1000);
    EXPECT_EQ(tCaller.iLastSeen, 1000);
    EXPECT_EQ(m_oLedger.Find(":1.1"), &tCaller);
    EXPECT_EQ(m_oLedger.Find(":1.2"), nullptr);
}

TEST_F(ALedger, ForgetsACallerWithAllThatItWasOwed)
{
    EXPECT_EQ(m_oLedger.Forget(":1.1"), 0u);
    BusCaller& tCaller = caller();
    m_oLedger.Sent(tCaller, 100, m_iNow);
    m_oLedger.Sent(caller(":1.2"), 7, m_iNow);
    hold(tCaller, REFUSABLE_BYTES);
    hold(tCaller, 1);
    EXPECT_EQ(m_oLedger.Forget(":1.1"), 2u);
    EXPECT_EQ(m_oLedger.Find(":1.1"), nullptr);
    EXPECT_EQ(m_oLedger.Unread(), 7u);
    EXPECT_EQ(m_oLedger.HeldBytes(), 0u);
    EXPECT_EQ(m_oLedger.ToBeRefused(m_iNow), nullptr);
}

TEST_F(ALedger, ForgetsOnlyWhatIsSettled)
{
    caller(":1.2").uUnread = 1;
    hold(caller(":1.3"), 1);
    caller(":1.4").bAsked = true;
    for (const char* szName : {":1.1", ":1.2", ":1.3", ":1.4"}) {
        m_oLedger.ForgetIfSettled(caller(szName));
    }
    EXPECT_EQ(m_oLedger.Find(":1.1"), nullptr);
    EXPECT_EQ(m_oLedger.Callers().size(), 3u);
}

TEST_F(ALedger, NamesTheIdleCallerThatWasAnsweredLongestAgo)
{
    for (std::size_t i = 0; i < KEPT_CALLERS; ++i) {
        m_oLedger.Sent(caller(std::to_string(i)), 1, 5000 - static_cast<gint64>(i));
    }
    EXPECT_EQ(m_oLedger.Superfluous(), nullptr);
    BusCaller& tHeld = caller("held");
    tHeld.iLastSeen = 1;
    hold(tHeld, 1);
    BusCaller& tAsked = caller("asked");
    tAsked.iLastSeen = 2;
    tAsked.bAsked = true;
    EXPECT_EQ(m_oLedger.Superfluous(), &caller(std::to_string(KEPT_CALLERS - 1)));
}

TEST_F(ALedger, CountsWhatIsSent)
{
    BusCaller& tCaller = caller();
    m_oLedger.Sent(tCaller, 10, 1500);
    m_oLedger.Sent(tCaller, 5, 1600);
    EXPECT_EQ(tCaller.uUnread, 15u);
    EXPECT_EQ(tCaller.iLastSeen, 1600);
    EXPECT_EQ(tCaller.iProgress, 1000);
    EXPECT_EQ(m_oLedger.Unread(), 15u);
}

TEST_F(ALedger, WidensTheWindowAtHalfAWindowReadAndNarrowsItWithoutProgress)
{
    BusCaller& tCaller = caller();
    m_oLedger.Sent(tCaller, WINDOW_BYTES, m_iNow);
    m_oLedger.SetUnread(tCaller, WINDOW_BYTES / 2 + 1, 1100);
    EXPECT_EQ(tCaller.uWindow, WINDOW_BYTES);
    EXPECT_EQ(tCaller.iProgress, 1100);
    m_oLedger.SetUnread(tCaller, 1, 1200);
    EXPECT_EQ(tCaller.uWindow, 2 * WINDOW_BYTES);
    EXPECT_EQ(tCaller.iProgress, 1200);
    EXPECT_EQ(m_oLedger.Unread(), 1u);
    m_oLedger.SetUnread(tCaller, 1, 1300);
    EXPECT_EQ(tCaller.uWindow, WINDOW_BYTES);
    EXPECT_EQ(tCaller.iProgress, 1200);
    m_oLedger.SetUnread(tCaller, 3, 1400);
    EXPECT_EQ(tCaller.uUnread, 3u);
    EXPECT_EQ(m_oLedger.Unread(), 3u);
}

TEST_F(ALedger, WidensNoWindowBeyondTheWidest)
{
    BusCaller& tCaller = caller();
    for (int i = 0; i < 10; ++i) {
        m_oLedger.Sent(tCaller, tCaller.uWindow, m_iNow);
        m_oLedger.SetUnread(tCaller, 0, m_iNow);
    }
    EXPECT_EQ(tCaller.uWindow, WIDEST_WINDOW_BYTES);
}

TEST_F(ALedger, FillsAWindowExactly)
{
    BusCaller& tCaller = caller();
    EXPECT_TRUE(m_oLedger.HasRoom(tCaller, 2 * WINDOW_BYTES)) << "nothing is unread";
    m_oLedger.Sent(tCaller, 1, m_iNow);
    EXPECT_TRUE(m_oLedger.HasRoom(tCaller, WINDOW_BYTES - 1));
    EXPECT_FALSE(m_oLedger.HasRoom(tCaller, WINDOW_BYTES));
    tCaller.uWindow = WIDEST_WINDOW_BYTES;
    EXPECT_TRUE(m_oLedger.HasRoom(tCaller, WINDOW_BYTES));
}

TEST_F(ALedger, LetsNobodyFillAWideWindowWhereMuchIsUnread)
{
    BusCaller& tCaller = caller();
    tCaller.uWindow = WIDEST_WINDOW_BYTES;
    m_oLedger.Sent(tCaller, 1, m_iNow);
    m_oLedger.Sent(caller(":1.2"), PLENTY_BYTES - 1 - WINDOW_BYTES, m_iNow);
    EXPECT_TRUE(m_oLedger.FitsWindow(tCaller, WINDOW_BYTES));
    EXPECT_FALSE(m_oLedger.FitsWindow(tCaller, WINDOW_BYTES + 1));
}

TEST_F(ALedger, FillsTheRoomOfAllExactly)
{
    BusCaller& tCaller = caller();
    m_oLedger.Sent(caller(":1.2"), UNREAD_BYTES - LARGE_BYTES - 1, m_iNow);
    EXPECT_TRUE(m_oLedger.HasRoom(tCaller, LARGE_BYTES + 1));
    m_oLedger.Sent(caller(":1.2"), 1, m_iNow);
    EXPECT_FALSE(m_oLedger.HasRoom(tCaller, LARGE_BYTES + 1));
    m_oLedger.Sent(caller(":1.2"), UNREAD_SMALL_BYTES, m_iNow);
    EXPECT_TRUE(m_oLedger.HasRoom(tCaller, LARGE_BYTES));
    m_oLedger.Sent(caller(":1.2"), 1, m_iNow);
    EXPECT_FALSE(m_oLedger.HasRoom(tCaller, LARGE_BYTES));
}

TEST_F(ALedger, TakesHeldRepliesInTheirOrderAsSent)
{
    BusCaller& tCaller = caller();
    EXPECT_EQ(m_oLedger.TakeNext(tCaller, m_iNow), nullptr);
    hold(tCaller, 10);
    m_iNow = 1500;
    hold(tCaller, 20);
    EXPECT_EQ(tCaller.iHeldSince, 1000);
    EXPECT_EQ(tCaller.uHeldBytes, 30 + 2 * HELD_EXTRA_BYTES);
    EXPECT_EQ(m_oLedger.HeldBytes(), 30 + 2 * HELD_EXTRA_BYTES);
    GDBusMessage* const pFirst = tCaller.held.front().pMessage.get();
    EXPECT_EQ(m_oLedger.TakeNext(tCaller, 1700).get(), pFirst);
    EXPECT_EQ(tCaller.uUnread, 10u);
    EXPECT_EQ(tCaller.iProgress, 1700);
    EXPECT_EQ(tCaller.iLastSeen, 1700);
    EXPECT_EQ(tCaller.uHeldBytes, 20 + HELD_EXTRA_BYTES);
    tCaller.uUnread = WINDOW_BYTES;
    EXPECT_EQ(m_oLedger.TakeNext(tCaller, 1800), nullptr) << "no room";
    EXPECT_EQ(tCaller.held.size(), 1u);
    EXPECT_EQ(tCaller.iProgress, 1700);
}

TEST_F(ALedger, HoldsTooMuchBeyondItsTotal)
{
    BusCaller& tCaller = caller();
    hold(tCaller, HELD_BYTES - HELD_EXTRA_BYTES);
    EXPECT_FALSE(m_oLedger.HoldsTooMuch());
    m_oLedger.Replace(tCaller.held.back(), BusMessagePtr(g_dbus_message_new()),
                      HELD_BYTES - HELD_EXTRA_BYTES + 1);
    EXPECT_TRUE(m_oLedger.HoldsTooMuch());
    m_oLedger.DropLast(tCaller);
    EXPECT_EQ(m_oLedger.HeldBytes(), 0u);
    EXPECT_TRUE(tCaller.held.empty());
}

TEST_F(ALedger, RefusesTheLargestAndOfEqualOnesTheOldest)
{
    BusCaller& tCaller = caller();
    hold(tCaller, REFUSABLE_BYTES - 1);
    EXPECT_EQ(m_oLedger.ToBeRefused(m_iNow), nullptr);
    hold(tCaller, REFUSABLE_BYTES);
    EXPECT_EQ(m_oLedger.ToBeRefused(m_iNow), &tCaller.held.back());
    hold(tCaller, REFUSABLE_BYTES + 1);
    BusHeldReply* const ptOldest = &tCaller.held.back();
    hold(caller(":1.2"), REFUSABLE_BYTES + 1);
    EXPECT_EQ(m_oLedger.ToBeRefused(m_iNow), ptOldest);
}

TEST_F(ALedger, RefusesThoseOfACallerWithoutProgressFirst)
{
    hold(caller(":1.1"), REFUSABLE_BYTES);
    m_iNow += 1;
    hold(caller(":1.2"), 2 * REFUSABLE_BYTES);
    EXPECT_EQ(m_oLedger.ToBeRefused(1000 + STUCK_MS - 1), &caller(":1.2").held.front());
    EXPECT_EQ(m_oLedger.ToBeRefused(1000 + STUCK_MS), &caller(":1.1").held.front());
}

TEST_F(ALedger, WeighsAReplacedReplyByItsNewSize)
{
    BusCaller& tCaller = caller();
    hold(tCaller, REFUSABLE_BYTES);
    BusMessagePtr pError(g_dbus_message_new());
    GDBusMessage* const pGiven = pError.get();
    m_oLedger.Replace(tCaller.held.front(), std::move(pError), 5);
    EXPECT_EQ(tCaller.held.front().pMessage.get(), pGiven);
    EXPECT_EQ(tCaller.held.front().uBytes, 5u);
    EXPECT_EQ(m_oLedger.HeldBytes(), 5 + HELD_EXTRA_BYTES);
    EXPECT_EQ(m_oLedger.ToBeRefused(m_iNow), nullptr);
}

}  // namespace
