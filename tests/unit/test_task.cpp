// test_task.cpp - CBillingTaskBase: order of events, synchronous sends, the ways to end. Doubles
// count how often the queue is scheduled, and let threads and contexts run out.
#include "BillingTaskBase.h"
#include "log_matchers.h"
#include "waiting.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

const LinesOf Source{"BillingTaskBase.cpp"};
const LinesOf Header{"BillingTaskBase.h"};

/// What the doubles do and see.
struct Doubles {
    bool bNoThread = false;
    bool bPretendThread = false;  ///< success without a thread
    bool bNoContext = false;
    std::size_t stackSize = 0;
    std::atomic<int> drains{0};  ///< HandleEvent scheduled
    GMainContext* pContext = nullptr;
    GMainLoop* pLoop = nullptr;
};
Doubles* g_pDoubles = nullptr;

}  // namespace

extern "C" {

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                          void* arg);
GMainContext* __real_g_main_context_new();
GMainLoop* __real_g_main_loop_new(GMainContext* context, gboolean running);
void __real_g_main_context_invoke(GMainContext* context, GSourceFunc func, gpointer data);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                          void* arg)
{
    pthread_attr_getstacksize(attr, &g_pDoubles->stackSize);
    if (g_pDoubles->bNoThread)
        return EAGAIN;
    return g_pDoubles->bPretendThread ? 0 : __real_pthread_create(thread, attr, body, arg);
}

GMainContext* __wrap_g_main_context_new()
{
    return g_pDoubles->pContext = g_pDoubles->bNoContext ? nullptr : __real_g_main_context_new();
}

GMainLoop* __wrap_g_main_loop_new(GMainContext* context, gboolean running)
{
    return g_pDoubles->pLoop = __real_g_main_loop_new(context, running);
}

void __wrap_g_main_context_invoke(GMainContext* context, GSourceFunc func, gpointer data)
{
    if (func == &CBillingTaskBase::HandleEvent)
        ++g_pDoubles->drains;
    __real_g_main_context_invoke(context, func, data);
}

}  // extern "C"

namespace {

constexpr std::int32_t QUIT = 0;
constexpr std::int32_t HANDSHAKE = 1;
constexpr std::int32_t WORK = 10;  // this one and all above: the task's own

/// Notes what it is given and where.
class Task : public CBillingTaskBase {
public:
    bool t_OnEvent(PTEvent* e) override
    {
        const bool bHandled = e->id >= WORK ? handle(*e) : CBillingTaskBase::t_OnEvent(e);
        note(std::to_string(e->id) + (bHandled ? "" : " refused"));
        return bHandled;
    }
    bool t_Create() override
    {
        taskThread = std::this_thread::get_id();
        bStarted = true;
        Eventually([this] { return !bHoldStart; });
        note("create");
        return bStarts && CBillingTaskBase::t_Create();
    }
    bool t_Destroy() override
    {
        note("destroy");
        return CBillingTaskBase::t_Destroy();
    }

    void put(std::int32_t id)
    {
        PTEvent event;
        event.id = id;
        PutEvent(&event);
    }
    void send(std::int32_t id, bool bSync)
    {
        PTEvent event;
        event.id = id;
        event.receiver = this;
        Send(&event, bSync);
    }
    /// The orderly end.
    void end()
    {
        bHoldStart = false;
        put(QUIT);
        Destroy();
    }
    std::vector<std::string> notes()
    {
        const std::lock_guard<std::mutex> hold(m_lock);
        return m_notes;
    }

    std::function<void(PTEvent&)> onWork;
    bool bStarts = true;
    std::atomic<bool> bHoldStart{false};
    std::atomic<bool> bStarted{false};
    std::thread::id taskThread;
    std::atomic<int> elsewhere{0};  ///< hooks that ran on another thread

private:
    bool handle(PTEvent& event)
    {
        if (onWork)
            onWork(event);
        return true;
    }
    void note(const std::string& strNote)
    {
        if (std::this_thread::get_id() != taskThread)
            ++elsewhere;
        const std::lock_guard<std::mutex> hold(m_lock);
        m_notes.push_back(strNote);
    }

    std::mutex m_lock;
    std::vector<std::string> m_notes;
};

class WithDoubles : public ::testing::Test {
protected:
    WithDoubles()
    {
        fake::platform().reset();
        g_pDoubles = &m_doubles;
    }
    ~WithDoubles() override { g_pDoubles = nullptr; }

    Doubles m_doubles;
};

class AnUncreatedTask : public WithDoubles {
protected:
    Task m_task;
};

class ATask : public WithDoubles {
protected:
    void create() { ASSERT_TRUE(m_task.Create()); }
    /// Its loop does not run yet, so that events pile up.
    void createHeld()
    {
        m_task.bHoldStart = true;
        create();
    }
    ~ATask() override
    {
        if (m_task.FlagCreate())
            m_task.end();
        EXPECT_EQ(m_task.elsewhere, 0);
    }

    Task m_task;
};

std::vector<std::string> Numbers(int first, int last)
{
    std::vector<std::string> numbers;
    for (int i = first; i <= last; ++i)
        numbers.push_back(std::to_string(i));
    return numbers;
}

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
        // The drain goes on to the end of the queue before the next one can be scheduled.
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

/// The other side of a handshake: it knows the array.
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
