// thread_test.cpp - CBillingThreadBase: the start gate, the wait for the end, and failing creation of
// threads, by a double.
#include "BillingTaskBase.h"
#include "log_matchers.h"
#include "waiting.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <thread>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const LinesOf Source{"BillingTaskBase.cpp"};
const LinesOf Header{"BillingTaskBase.h"};

constexpr unsigned long STACK_SIZE = 131072;

/// Failures that the double produces, and what it has seen.
struct Doubles {
    bool bFail = false;     ///< creation of a thread fails
    bool bPretend = false;  ///< creation succeeds without a thread
    std::function<void()> afterCreation;
    std::atomic<int> inside{0};
    std::atomic<int> insideAtMost{0};
    std::atomic<int> calls{0};
    int iDetachState = -1;
    std::size_t stackSize = 0;
};
Doubles* g_pDoubles = nullptr;

}  // namespace

extern "C" {

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                          void* arg);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                          void* arg)
{
    ++g_pDoubles->calls;
    const int now = ++g_pDoubles->inside;
    g_pDoubles->insideAtMost = std::max(g_pDoubles->insideAtMost.load(), now);
    pthread_attr_getdetachstate(attr, &g_pDoubles->iDetachState);
    pthread_attr_getstacksize(attr, &g_pDoubles->stackSize);
    int iResult = g_pDoubles->bFail ? EAGAIN : 0;
    if (!g_pDoubles->bFail && !g_pDoubles->bPretend)
        iResult = __real_pthread_create(thread, attr, body, arg);
    if (g_pDoubles->afterCreation)
        g_pDoubles->afterCreation();
    --g_pDoubles->inside;
    return iResult;
}

}  // extern "C"

namespace {

/// A body that notes its thread, and waits when the test holds it.
class Worker : public CBillingThreadBase {
public:
    void t_Main() override
    {
        thread = std::this_thread::get_id();
        bStarted = true;
        Eventually([this] { return !bHold; });
        ++ended;
    }

    std::atomic<bool> bHold{false};
    std::atomic<bool> bStarted{false};
    std::atomic<int> ended{0};
    std::thread::id thread;
};

class AThread : public ::testing::Test {
protected:
    AThread()
    {
        fake::platform().reset();
        g_pDoubles = &m_doubles;
    }
    ~AThread() override { g_pDoubles = nullptr; }

    Doubles m_doubles;
    Worker m_worker;
};

TEST_F(AThread, RunsItsBodyOnAThreadOfItsOwn)
{
    EXPECT_FALSE(m_worker.FlagCreate());
    ASSERT_TRUE(m_worker.Create(STACK_SIZE));
    EXPECT_TRUE(m_worker.FlagCreate());
    m_worker.Destroy();
    EXPECT_FALSE(m_worker.FlagCreate());
    EXPECT_EQ(m_worker.ended, 1);
    EXPECT_NE(m_worker.thread, std::this_thread::get_id());
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(AThread, IsDetachedAndHasTheStackThatWasAskedFor)
{
    ASSERT_TRUE(m_worker.Create(STACK_SIZE));
    m_worker.Destroy();
    EXPECT_EQ(m_doubles.iDetachState, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(m_doubles.stackSize, STACK_SIZE);
}

TEST_F(AThread, WaitsAtTheGateUntilCreateHasFinished)
{
    bool bStartedBefore = true;
    m_doubles.afterCreation = [&] {
        bStartedBefore = !NotYet([this] { return m_worker.bStarted.load(); });
    };
    ASSERT_TRUE(m_worker.Create(STACK_SIZE));
    EXPECT_FALSE(bStartedBefore);
    m_worker.Destroy();
    EXPECT_TRUE(m_worker.bStarted);
}

TEST_F(AThread, IsDestroyedOnlyWhenItsBodyHasReturned)
{
    m_worker.bHold = true;
    ASSERT_TRUE(m_worker.Create(STACK_SIZE));
    std::atomic<bool> bDestroyed{false};
    std::thread owner([&] {
        m_worker.Destroy();
        EXPECT_EQ(m_worker.ended, 1);
        bDestroyed = true;
    });
    EXPECT_TRUE(NotYet([&] { return bDestroyed.load(); }));
    m_worker.bHold = false;
    owner.join();
    EXPECT_TRUE(bDestroyed);
}

TEST_F(AThread, CountsAsCreatedUntilItIsDestroyed)
{
    ASSERT_TRUE(m_worker.Create(STACK_SIZE));
    ASSERT_TRUE(Eventually([this] { return m_worker.ended == 1; }));
    EXPECT_TRUE(m_worker.FlagCreate());
    EXPECT_FALSE(m_worker.Create(STACK_SIZE));
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("Create", "FlagCreate()")));
    EXPECT_EQ(m_doubles.calls, 1);
    m_worker.Destroy();
}

TEST_F(AThread, RefusesDestroyWhenUncreated)
{
    m_worker.Destroy();
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("Destroy", "FlagCreate() != true")));
}

TEST_F(AThread, ThatCannotBeHadLeavesNothingBehind)
{
    m_doubles.bFail = true;
    EXPECT_FALSE(m_worker.Create(STACK_SIZE));
    EXPECT_FALSE(m_worker.FlagCreate());
    EXPECT_THAT(LoggedLines(), IsEmpty());

    m_doubles.bFail = false;
    EXPECT_TRUE(m_worker.Create(STACK_SIZE));
    m_worker.Destroy();
    EXPECT_EQ(m_worker.ended, 1);
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(AThread, CanBeCreatedAgainAfterDestroy)
{
    for (int round = 1; round <= 3; ++round) {
        ASSERT_TRUE(m_worker.Create(STACK_SIZE));
        m_worker.Destroy();
        EXPECT_EQ(m_worker.ended, round);
    }
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(AThread, IsCreatedOneAtATime)
{
    m_doubles.afterCreation = [] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); };
    Worker another;
    std::promise<bool> result;
    std::thread owner([&] { result.set_value(another.Create(STACK_SIZE)); });
    EXPECT_TRUE(m_worker.Create(STACK_SIZE));
    EXPECT_TRUE(result.get_future().get());
    owner.join();
    EXPECT_EQ(m_doubles.calls, 2);
    EXPECT_EQ(m_doubles.insideAtMost, 1);
    m_worker.Destroy();
    another.Destroy();
}

TEST_F(AThread, DestructedWithoutDestroyIsLoggedByBothSyncObjects)
{
    m_doubles.bPretend = true;
    {
        Worker forgotten;
        ASSERT_TRUE(forgotten.Create(STACK_SIZE));
    }
    EXPECT_THAT(LoggedLines(),
                ElementsAre(Header.refused("~CBillingSync", "FlagCreate() != false"),
                            Header.refused("~CBillingSync", "FlagCreate() != false")));
}

TEST_F(AThread, MayBeDeletedAsSoonAsItIsDestroyed)
{
    for (int round = 0; round < 500; ++round) {
        auto pWorker = std::make_unique<Worker>();
        ASSERT_TRUE(pWorker->Create(STACK_SIZE));
        pWorker->Destroy();
        pWorker.reset();
    }
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

}  // namespace
