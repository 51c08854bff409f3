// task_events_test.cpp - CBillingTaskBase: the order of events, synchronous sends, the handshake.
#include "task_probe.h"

#include <gmock/gmock.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

std::vector<std::string> Numbers(int first, int last)
{
    std::vector<std::string> numbers;
    for (int i = first; i <= last; ++i)
        numbers.push_back(std::to_string(i));
    return numbers;
}

TEST_F(ATask, AnswersASynchronousSendOnlyAfterItHasHandledTheEvent)
{
    std::atomic<bool> bRelease{false};
    std::atomic<bool> bHandled{false};
    std::atomic<bool> bReturned{false};
    m_task.onWork = [&](PTEvent&) {
        Eventually([&] { return bRelease.load(); });
        bHandled = true;
    };
    create();
    std::thread sender([&] {
        m_task.send(WORK, true);
        EXPECT_TRUE(bHandled);
        bReturned = true;
    });
    EXPECT_TRUE(NotYet([&] { return bReturned.load(); }));
    bRelease = true;
    sender.join();
    EXPECT_TRUE(bReturned);
}

TEST_F(ATask, AnswersASynchronousSendAlsoWhenItRefusedTheEvent)
{
    create();
    m_task.send(7, true);
    EXPECT_THAT(m_task.notes(), ElementsAre("create", "7 refused"));
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(ATask, QueuesACopyWithoutASyncWhenTheSendIsAsynchronous)
{
    int argument = 0;
    CBillingSync stale;
    std::vector<PTEvent> seen;
    m_task.onWork = [&](PTEvent& event) { seen.push_back(event); };
    createHeld();
    PTEvent event;
    event.id = WORK;
    event.receiver = &m_task;
    event.sync = &stale;
    event.param = &argument;
    m_task.Send(&event, false);
    EXPECT_EQ(event.sync, nullptr);
    event = PTEvent();
    m_task.end();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].id, WORK);
    EXPECT_EQ(seen[0].param, &argument);
    EXPECT_EQ(seen[0].sync, nullptr);
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(ATask, KeepsEveryFieldOfAnEvent)
{
    int argument = 0;
    PTEvent event;
    event.id = WORK;
    event.receiver = &m_task;
    event.param = &argument;
    event.param2 = 0xFEDCBA98;
    PTEvent seen;
    m_task.onWork = [&](PTEvent& handled) { seen = handled; };
    create();
    m_task.Send(&event, true);
    EXPECT_EQ(seen.id, WORK);
    EXPECT_EQ(seen.receiver, &m_task);
    EXPECT_EQ(seen.sync, event.sync);
    EXPECT_EQ(seen.param, &argument);
    EXPECT_EQ(seen.param2, 0xFEDCBA98);
}

TEST_F(ATask, HandlesABurstOfTenInOneDrainAndInOrder)
{
    createHeld();
    for (int id = 10; id <= 19; ++id)
        m_task.put(id);
    EXPECT_EQ(m_doubles.drains, 1);
    m_task.bHoldStart = false;
    EXPECT_TRUE(Eventually([this] { return m_task.notes().size() == 11; }));
    EXPECT_EQ(m_doubles.drains, 1);
    auto expected = Numbers(10, 19);
    expected.insert(expected.begin(), "create");
    EXPECT_THAT(m_task.notes(), ElementsAreArray(expected));
}

TEST_F(ATask, SchedulesAgainWhatComesAfterADrain)
{
    create();
    for (int round = 1; round <= 3; ++round) {
        m_task.send(WORK, true);
        // A drain empties the queue before another can be scheduled, so the send repeats until one is.
        PTEvent event;
        event.id = WORK;
        event.receiver = &m_task;
        ASSERT_TRUE(Eventually([&] {
            const int before = m_doubles.drains;
            m_task.Send(&event, true);
            return m_doubles.drains > before;
        }));
    }
    EXPECT_GE(m_doubles.drains, 4);
}

TEST_F(ATask, HandlesAnEventThatAnEventPosts)
{
    m_task.onWork = [this](PTEvent& event) {
        if (event.id < 15)
            m_task.put(event.id + 1);
    };
    create();
    m_task.put(WORK);
    EXPECT_TRUE(Eventually([this] { return m_task.notes().size() == 7; }));
    auto expected = Numbers(10, 15);
    expected.insert(expected.begin(), "create");
    EXPECT_THAT(m_task.notes(), ElementsAreArray(expected));
}

TEST_F(ATask, PostsASynchronousSendToItselfWithoutWaiting)
{
    std::vector<std::string> order;
    m_task.onWork = [&](PTEvent& event) {
        order.push_back("begin " + std::to_string(event.id));
        if (event.id == WORK) {
            PTEvent next;
            next.id = WORK + 1;
            next.receiver = &m_task;
            m_task.Send(&next, true);
            EXPECT_EQ(next.sync, nullptr);
        }
        order.push_back("end " + std::to_string(event.id));
    };
    create();
    m_task.send(WORK, true);
    m_task.end();
    EXPECT_THAT(order, ElementsAre("begin 10", "end 10", "begin 11", "end 11"));
}

TEST_F(ATask, SendsToAnotherTaskAndWaitsForIt)
{
    Task other;
    std::atomic<bool> bHandled{false};
    other.onWork = [&](PTEvent&) { bHandled = true; };
    m_task.onWork = [&](PTEvent&) {
        PTEvent event;
        event.id = WORK;
        event.receiver = &other;
        m_task.Send(&event, true);
        EXPECT_TRUE(bHandled);
    };
    create();
    ASSERT_TRUE(other.Create());
    m_task.send(WORK, true);
    other.end();
    EXPECT_THAT(other.notes(), ElementsAre("create", "10", "0", "destroy"));
    EXPECT_EQ(other.elsewhere, 0);
}

/// Content of the array that the other side of a handshake passes.
struct Handshake {
    Handshake()
    {
        pSyncs[0].Create();
        pSyncs[1].Create();
        event.id = HANDSHAKE;
        event.param = pSyncs;
    }
    CBillingSync* const pSyncs = new CBillingSync[2];
    PTEvent event;
};

TEST_F(ATask, ShakesHandsAndFreesTheArray)
{
    create();
    const Handshake handshake;
    PTEvent event = handshake.event;
    event.receiver = &m_task;
    m_task.Send(&event, false);
    handshake.pSyncs[0].Take();
    handshake.pSyncs[1].Give();
    m_task.send(WORK, true);
    EXPECT_THAT(m_task.notes(), ElementsAre("create", "1", "10"));
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(ATask, GivesUpAHandshakeAfterASecondAndLeavesTheArrayToTheOtherSide)
{
    create();
    const Handshake handshake;
    PTEvent event = handshake.event;
    event.receiver = &m_task;
    m_task.Send(&event, true);
    EXPECT_THAT(m_task.notes(), ElementsAre("create", "1 refused"));
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("t_OnEvent", "!ret")));
    EXPECT_TRUE(handshake.pSyncs[0].SyncTry(0));
    EXPECT_FALSE(handshake.pSyncs[1].SyncTry(0));
    handshake.pSyncs[0].Destroy();
    handshake.pSyncs[1].Destroy();
    delete[] handshake.pSyncs;
}

TEST_F(ATask, TakesTheHandThatWasGivenBefore)
{
    create();
    const Handshake handshake;
    handshake.pSyncs[1].Give();
    PTEvent event = handshake.event;
    event.receiver = &m_task;
    m_task.Send(&event, true);
    EXPECT_THAT(m_task.notes(), ElementsAre("create", "1"));
}

TEST_F(ATask, LosesNoEventOfManySenders)
{
    create();
    std::vector<std::thread> senders;
    for (int sender = 0; sender < 4; ++sender) {
        senders.emplace_back([this] {
            for (int i = 0; i < 250; ++i)
                m_task.send(WORK, i % 10 == 0);
        });
    }
    for (std::thread& sender : senders)
        sender.join();
    m_task.end();
    EXPECT_EQ(m_task.notes().size(), 1003u);
}

}  // namespace
