// bus_backlog_test.cpp - the limit on calls before the main loop for a caller that wants no answers.
#include "BusBacklog.h"
#include "BusLimits.h"
#include "held_locks.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <string>

namespace {

int Enter(CBusBacklog& oBacklog, const char* szSender, std::size_t uTimes)
{
    int iEntered = 0;
    for (std::size_t i = 0; i < uTimes; ++i) {
        iEntered += oBacklog.Enter(szSender) ? 1 : 0;
    }
    return iEntered;
}

void RunMainLoop()
{
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
}

TEST(ABusBacklog, RefusesOneCallerAndNoOther)
{
    const auto pBacklog = CBusBacklog::Make();
    EXPECT_EQ(Enter(*pBacklog, ":1.1", 2 * BusLimits::UNANSWERED_CALLS),
              static_cast<int>(BusLimits::UNANSWERED_CALLS));
    EXPECT_TRUE(pBacklog->Enter(":1.2"));
    RunMainLoop();
}

TEST(ABusBacklog, TakesAsManyAgainOnceTheMainLoopHasServedThem)
{
    const auto pBacklog = CBusBacklog::Make();
    Enter(*pBacklog, ":1.1", BusLimits::UNANSWERED_CALLS);
    RunMainLoop();
    EXPECT_EQ(Enter(*pBacklog, ":1.1", BusLimits::UNANSWERED_CALLS + 1),
              static_cast<int>(BusLimits::UNANSWERED_CALLS));
    RunMainLoop();
}

TEST(ABusBacklog, CountsTheCallsThatStillWaitWhenOneIsServed)
{
    const auto pBacklog = CBusBacklog::Make();
    struct Probe {
        CBusBacklog* pBacklog;
        int iEntered;
    } oProbe{pBacklog.get(), -1};
    // Runs between the two calls: sources of one priority run in the order of arrival.
    const auto look = [](gpointer pGiven) -> gboolean {
        auto* const pProbe = static_cast<Probe*>(pGiven);
        pProbe->iEntered = Enter(*pProbe->pBacklog, ":1.1", BusLimits::UNANSWERED_CALLS);
        return G_SOURCE_REMOVE;
    };
    EXPECT_TRUE(pBacklog->Enter(":1.1"));
    g_idle_add_full(G_PRIORITY_DEFAULT, look, &oProbe, nullptr);
    EXPECT_TRUE(pBacklog->Enter(":1.1"));
    RunMainLoop();
    EXPECT_EQ(oProbe.iEntered, static_cast<int>(BusLimits::UNANSWERED_CALLS) - 1);
}

TEST(ABusBacklog, HoldsItsLockToEnterAndToLeave)
{
    const auto pBacklog = CBusBacklog::Make();
    int iLocks = 0;
    BeforeLock(1, [&] { ++iLocks; });
    EXPECT_TRUE(pBacklog->Enter(":1.1"));
    EXPECT_EQ(iLocks, 1);
    BeforeLock(1, [&] { ++iLocks; });
    RunMainLoop();
    EXPECT_EQ(iLocks, 2);
}

TEST(ABusBacklog, ForgetsCallersThatWereServed)
{
    const auto pBacklog = CBusBacklog::Make();
    const auto serve = [&](int iFrom, int iCount) {
        for (int i = iFrom; i < iFrom + iCount; ++i) {
            EXPECT_TRUE(pBacklog->Enter("a long name of a caller " + std::to_string(i)));
            RunMainLoop();
        }
    };
    serve(0, 100);
    const std::size_t uBefore = mallinfo2().uordblks;
    serve(100, 5000);
    // A remembered caller takes more than 100 bytes.
    EXPECT_LT(mallinfo2().uordblks, uBefore + 100000);
}

TEST(ABusBacklog, MayGoBeforeItsCalls)
{
    auto pBacklog = CBusBacklog::Make();
    const std::weak_ptr<CBusBacklog> pStill = pBacklog;
    EXPECT_TRUE(pBacklog->Enter(":1.1"));
    pBacklog.reset();
    EXPECT_FALSE(pStill.expired());
    RunMainLoop();
    EXPECT_TRUE(pStill.expired());
}

}  // namespace
