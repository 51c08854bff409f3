// task_test.cpp - CBillingTaskBase: refused calls, the start, and the ways to end.
#include "task_probe.h"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

TEST_F(AnUncreatedTask, RefusesDestroy)
{
    m_task.Destroy();
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("Destroy", "FlagCreate() != true")));
}

TEST_F(AnUncreatedTask, IsSentNothing)
{
    m_task.send(WORK, true);
    m_task.send(WORK, false);
    const char* const szCondition = "e->receiver == NULL || !(e->receiver->FlagCreate())";
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("Send", szCondition),
                                           Source.refused("Send", szCondition)));
    PTEvent event;
    EXPECT_FALSE(m_task.PopFrontEvent(event));
}

TEST_F(AnUncreatedTask, SendsNothingToNobody)
{
    PTEvent event;
    event.id = WORK;
    m_task.Send(&event, true);
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused(
                                   "Send", "e->receiver == NULL || !(e->receiver->FlagCreate())")));
}

TEST_F(AnUncreatedTask, RefusesToHandleItsQueue)
{
    EXPECT_EQ(CBillingTaskBase::HandleEvent(&m_task), FALSE);
    EXPECT_THAT(LoggedLines(),
                ElementsAre(Source.refused("HandleEvent", "!pTaskBase->FlagCreate()")));
}

TEST_F(AnUncreatedTask, RefusesAnEvent)
{
    PTEvent event;
    EXPECT_FALSE(m_task.CBillingTaskBase::t_OnEvent(&event));
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("t_OnEvent", "!FlagCreate()")));
}

TEST_F(AnUncreatedTask, RefusesItsDefaultHooks)
{
    EXPECT_FALSE(m_task.CBillingTaskBase::t_Create());
    EXPECT_FALSE(m_task.CBillingTaskBase::t_Destroy());
    EXPECT_THAT(LoggedLines(), ElementsAre(Header.refused("t_Create", "FlagCreate() != true"),
                                           Header.refused("t_Destroy", "FlagCreate() != true")));
}

TEST_F(AnUncreatedTask, ReleasesAtOnceWhoWouldWaitForAnEventThatNobodyHandles)
{
    CBillingSync sync;
    ASSERT_TRUE(sync.Create());
    PTEvent event;
    event.id = WORK;
    event.sync = &sync;
    m_task.PutEvent(&event);
    EXPECT_TRUE(sync.SyncTry(0));
    EXPECT_FALSE(m_task.PopFrontEvent(event));
    sync.Destroy();
}

TEST_F(AnUncreatedTask, StaysSoWithoutAContext)
{
    m_doubles.bNoContext = true;
    EXPECT_FALSE(m_task.Create());
    EXPECT_FALSE(m_task.FlagCreate());
    EXPECT_EQ(m_doubles.stackSize, 0u);
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(AnUncreatedTask, StaysSoWithoutAThreadAndCanBeCreatedLater)
{
    m_doubles.bNoThread = true;
    EXPECT_FALSE(m_task.Create());
    EXPECT_FALSE(m_task.FlagCreate());
    EXPECT_THAT(LoggedLines(), IsEmpty());

    m_doubles.bNoThread = false;
    ASSERT_TRUE(m_task.Create());
    m_task.end();
    EXPECT_THAT(m_task.notes(), ElementsAre("create", "0", "destroy"));
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(AnUncreatedTask, DestructedAfterCreateIsLoggedByEachOfItsParts)
{
    m_doubles.bPretendThread = true;
    {
        Task forgotten;
        ASSERT_TRUE(forgotten.Create());
    }
    EXPECT_THAT(LoggedLines(),
                ElementsAre(Header.refused("~CBillingTaskBase", "FlagCreate() == true"),
                            Header.refused("~CBillingMainLoop", "FlagCreate() != false"),
                            Header.refused("~CBillingSync", "FlagCreate() != false"),
                            Header.refused("~CBillingSync", "FlagCreate() != false")));
    g_main_context_unref(m_doubles.pContext);
    g_main_loop_unref(m_doubles.pLoop);
}

TEST_F(ATask, RefusesASecondCreate)
{
    create();
    EXPECT_FALSE(m_task.Create());
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("Create", "FlagCreate()")));
    m_task.send(WORK, true);
    EXPECT_THAT(m_task.notes(), ElementsAre("create", "10"));
}

TEST_F(ATask, HasAStackOf128KiB)
{
    create();
    EXPECT_EQ(m_doubles.stackSize, 131072u);
}

TEST_F(ATask, CallsItsHooksFirstAndLastOnItsOwnThread)
{
    create();
    m_task.send(WORK, true);
    m_task.end();
    EXPECT_THAT(m_task.notes(), ElementsAre("create", "10", "0", "destroy"));
    EXPECT_NE(m_task.taskThread, std::this_thread::get_id());
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(ATask, ThatDoesNotWantToStartEndsWithoutItsLoop)
{
    m_task.bStarts = false;
    create();
    ASSERT_TRUE(Eventually([this] { return !m_task.notes().empty(); }));
    m_task.put(WORK);
    m_task.Destroy();
    EXPECT_FALSE(m_task.FlagCreate());
    EXPECT_THAT(m_task.notes(), ElementsAre("create"));
    EXPECT_THAT(LoggedLines(), IsEmpty());

    m_task.bStarts = true;
    create();
    m_task.end();
    EXPECT_THAT(m_task.notes(), ElementsAre("create", "create", "0", "destroy"));
}

TEST_F(ATask, ThatDoesNotStartReleasesASynchronousSendWhenDestroyed)
{
    m_task.bStarts = false;
    createHeld();
    std::thread sender([this] { m_task.send(WORK, true); });
    EXPECT_TRUE(Eventually([this] { return m_doubles.drains > 0; }));
    m_task.bHoldStart = false;
    m_task.Destroy();
    sender.join();
    EXPECT_THAT(m_task.notes(), ElementsAre("create"));
}

TEST_F(ATask, LeavesWhatComesBehindAQuitToDestroyWhichDiscardsIt)
{
    createHeld();
    m_task.put(WORK);
    m_task.put(QUIT);
    m_task.put(WORK + 1);
    m_task.bHoldStart = false;
    m_task.Destroy();
    EXPECT_THAT(m_task.notes(), ElementsAre("create", "10", "0", "destroy"));
    PTEvent event;
    EXPECT_FALSE(m_task.PopFrontEvent(event));

    create();
    m_task.send(WORK + 2, true);
    EXPECT_THAT(m_task.notes(), ElementsAre("create", "10", "0", "destroy", "create", "12"));
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(ATask, ReleasesASynchronousSendBehindAQuitWhenDestroyed)
{
    createHeld();
    m_task.put(QUIT);
    std::atomic<bool> bReturned{false};
    std::thread sender([&] {
        m_task.send(WORK, true);
        bReturned = true;
    });
    EXPECT_TRUE(NotYet([&] { return bReturned.load(); }));
    m_task.bHoldStart = false;
    EXPECT_TRUE(NotYet([&] { return bReturned.load(); }));
    m_task.Destroy();
    sender.join();
    EXPECT_THAT(m_task.notes(), ElementsAre("create", "0", "destroy"));
}

TEST_F(ATask, ReleasesEverySynchronousSendWhateverTheMomentOfItsEnd)
{
    for (int round = 0; round < 150; ++round) {
        create();
        std::atomic<bool> bStop{false};
        std::vector<std::thread> senders;
        for (int i = 0; i < 2; ++i) {
            senders.emplace_back([&] {
                while (!bStop)
                    m_task.send(WORK, true);
            });
        }
        for (int spin = 0; spin < round % 20; ++spin)
            std::this_thread::yield();
        m_task.end();
        bStop = true;
        for (std::thread& sender : senders)
            sender.join();
    }
}

TEST_F(ATask, IsCreatedAgainAfterDestroy)
{
    for (int round = 0; round < 3; ++round) {
        create();
        m_task.send(WORK, true);
        m_task.end();
        EXPECT_FALSE(m_task.FlagCreate());
    }
    EXPECT_EQ(m_task.notes().size(), 12u);
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

}  // namespace
