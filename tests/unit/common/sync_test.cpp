// sync_test.cpp - CBillingAutoLock, CBillingSync and CBillingSingleton. Doubles replace the clock, the wait,
// and the unlocking of a null mutex.
#include "BillingTaskBase.h"
#include "log_matchers.h"
#include "waiting.h"

#include <gmock/gmock.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const LinesOf Source{"BillingTaskBase.cpp"};
const LinesOf Header{"BillingTaskBase.h"};

constexpr unsigned long FOREVER = 0xFFFFFFFF;

/// Behaviour of the doubles and what they have seen. An empty function leaves the call to the C library.
struct Doubles {
    std::vector<timeval> clock;  ///< values of gettimeofday in order; the last one repeats
    std::size_t clockReads = 0;
    std::function<int(pthread_mutex_t*)> timedWait;
    std::vector<timespec> deadlines;
    std::atomic<int> nullUnlocks{0};
    int condDestroys = 0;
};
Doubles* g_pDoubles = nullptr;

}  // namespace

extern "C" {

int __real_gettimeofday(timeval* tv, void* tz);
int __real_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* at);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_pthread_cond_destroy(pthread_cond_t* cond);

int __wrap_gettimeofday(timeval* tv, void* tz)
{
    if (g_pDoubles == nullptr || g_pDoubles->clock.empty())
        return __real_gettimeofday(tv, tz);
    const std::size_t last = g_pDoubles->clock.size() - 1;
    *tv = g_pDoubles->clock[std::min(g_pDoubles->clockReads++, last)];
    return 0;
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* at)
{
    if (g_pDoubles == nullptr || !g_pDoubles->timedWait)
        return __real_pthread_cond_timedwait(cond, mutex, at);
    g_pDoubles->deadlines.push_back(*at);
    return g_pDoubles->timedWait(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    if (mutex != nullptr)
        return __real_pthread_mutex_unlock(mutex);
    ++g_pDoubles->nullUnlocks;
    return EINVAL;
}

int __wrap_pthread_cond_destroy(pthread_cond_t* cond)
{
    ++g_pDoubles->condDestroys;
    return __real_pthread_cond_destroy(cond);
}

}  // extern "C"

namespace {

MATCHER_P2(Deadline, sec, nsec, "")
{
    *result_listener << arg.tv_sec << " s " << arg.tv_nsec << " ns";
    return arg.tv_sec == sec && arg.tv_nsec == nsec;
}

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

class AScopedLock : public WithDoubles {};
class AnUncreatedSync : public WithDoubles {
protected:
    CBillingSync m_sync;
};
class ACreatedSync : public WithDoubles {
protected:
    ACreatedSync() { EXPECT_TRUE(m_sync.Create()); }
    ~ACreatedSync() override { m_sync.Destroy(); }

    CBillingSync m_sync;
};

TEST_F(AScopedLock, HoldsTheMutexForItsScope)
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    {
        const CBillingAutoLock lock(&mutex);
        EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
    }
    EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
    pthread_mutex_unlock(&mutex);
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(AScopedLock, OnANullMutexIsLoggedAndStillUnlocksTheNullPointer)
{
    pthread_mutex_t* volatile pNone = nullptr;
    {
        const CBillingAutoLock lock(pNone);
        EXPECT_EQ(m_doubles.nullUnlocks, 0);
    }
    EXPECT_EQ(m_doubles.nullUnlocks, 1);
    EXPECT_THAT(LoggedLines(), ElementsAre(Header.refused("CBillingAutoLock", "mutex == NULL")));
}

TEST_F(AnUncreatedSync, SaysSo)
{
    EXPECT_FALSE(m_sync.FlagCreate());
}

TEST_F(AnUncreatedSync, LetsAWaitForEverPassWithoutBlocking)
{
    EXPECT_TRUE(m_sync.SyncTry(FOREVER));
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(AnUncreatedSync, LetsTakePassWithoutALine)
{
    m_sync.Take();
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(AnUncreatedSync, RefusesATimedWaitAndAPoll)
{
    EXPECT_FALSE(m_sync.SyncTry(1000));
    EXPECT_FALSE(m_sync.SyncTry(0));
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("SyncTry", "FlagCreate() != true"),
                                           Source.refused("SyncTry", "FlagCreate() != true")));
}

TEST_F(AnUncreatedSync, RefusesGiveWhichChangesNothing)
{
    m_sync.Give();
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("Give", "!FlagCreate()")));
    ASSERT_TRUE(m_sync.Create());
    EXPECT_FALSE(m_sync.SyncTry(0));
    m_sync.Destroy();
}

TEST_F(AnUncreatedSync, RefusesDestroyWhichChangesNothing)
{
    m_sync.Destroy();
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("Destroy", "!FlagCreate()")));
    EXPECT_EQ(m_doubles.condDestroys, 0);
    EXPECT_FALSE(m_sync.FlagCreate());
}

TEST_F(AnUncreatedSync, LeavesTheLockFreeAfterEveryRefusal)
{
    m_sync.Give();
    m_sync.Destroy();
    m_sync.SyncTry(5);
    m_sync.Take();
    EXPECT_TRUE(m_sync.Create());
    EXPECT_TRUE(m_sync.FlagCreate());
    m_sync.Destroy();
}

TEST_F(ACreatedSync, RefusesASecondCreate)
{
    m_sync.Give();
    EXPECT_FALSE(m_sync.Create());
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("Create", "FlagCreate()")));
    EXPECT_TRUE(m_sync.FlagCreate());
    EXPECT_TRUE(m_sync.SyncTry(0));
}

TEST_F(ACreatedSync, PolledWithoutASignalAnswersFalseAtOnce)
{
    m_doubles.timedWait = [](pthread_mutex_t*) { return ETIMEDOUT; };
    EXPECT_FALSE(m_sync.SyncTry(0));
    EXPECT_THAT(m_doubles.deadlines, IsEmpty());
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(ACreatedSync, PolledWithTwoSignalsTakesOneAndLeavesOne)
{
    m_sync.Give();
    m_sync.Give();
    EXPECT_TRUE(m_sync.SyncTry(0));
    EXPECT_TRUE(m_sync.SyncTry(0));
    EXPECT_FALSE(m_sync.SyncTry(0));
}

TEST_F(ACreatedSync, LetsAsManyTakesPassAsItWasGiven)
{
    m_sync.Give();
    m_sync.Give();
    m_sync.Take();
    m_sync.Take();
    EXPECT_FALSE(m_sync.SyncTry(0));
}

TEST_F(ACreatedSync, TakesASignalThatIsThereWithoutLookingAtTheClock)
{
    m_doubles.timedWait = [](pthread_mutex_t*) { return ETIMEDOUT; };
    m_sync.Give();
    EXPECT_TRUE(m_sync.SyncTry(1000));
    EXPECT_THAT(m_doubles.deadlines, IsEmpty());
    EXPECT_FALSE(m_sync.SyncTry(0));
}

TEST_F(ACreatedSync, WithoutAGiveTimesOutAfterItsInterval)
{
    const auto start = steady_clock::now();
    EXPECT_FALSE(m_sync.SyncTry(1500));
    const auto waited = steady_clock::now() - start;
    EXPECT_GE(waited, milliseconds(1450));
    EXPECT_LT(waited, seconds(20));
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(ACreatedSync, GivenByAnotherThreadEndsTheWaitThen)
{
    const auto start = steady_clock::now();
    std::thread giver([&] {
        std::this_thread::sleep_for(milliseconds(500));
        m_sync.Give();
    });
    EXPECT_TRUE(m_sync.SyncTry(60000));
    const auto waited = steady_clock::now() - start;
    giver.join();
    EXPECT_GE(waited, milliseconds(490));
    EXPECT_LT(waited, seconds(30));
    EXPECT_FALSE(m_sync.SyncTry(0));
}

TEST_F(ACreatedSync, WaitedForWithoutEndReturnsWithTheSignal)
{
    std::atomic<bool> bPassed{false};
    std::thread waiter([&] {
        EXPECT_TRUE(m_sync.SyncTry(FOREVER));
        bPassed = true;
    });
    EXPECT_TRUE(NotYet([&] { return bPassed.load(); }));
    m_sync.Give();
    waiter.join();
    EXPECT_TRUE(bPassed);
    EXPECT_FALSE(m_sync.SyncTry(0));
}

TEST_F(ACreatedSync, LetsOneWaiterPassForEachGive)
{
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            m_sync.Take();
            ++passed;
        });
    }
    for (int given = 1; given <= 3; ++given) {
        m_sync.Give();
        EXPECT_TRUE(Eventually([&] { return passed == given; }));
        EXPECT_TRUE(NotYet([&] { return passed > given; }));
    }
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_FALSE(m_sync.SyncTry(0));
}

TEST_F(ACreatedSync, ForgetsItsSignalsWhenDestroyed)
{
    m_sync.Give();
    m_sync.Destroy();
    EXPECT_FALSE(m_sync.FlagCreate());
    EXPECT_EQ(m_doubles.condDestroys, 1);
    ASSERT_TRUE(m_sync.Create());
    EXPECT_FALSE(m_sync.SyncTry(0));
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(ACreatedSync, DestructedWithoutDestroyIsLoggedAndLeavesTheConditionAlone)
{
    {
        CBillingSync sync;
        ASSERT_TRUE(sync.Create());
    }
    EXPECT_THAT(LoggedLines(),
                ElementsAre(Header.refused("~CBillingSync", "FlagCreate() != false")));
    EXPECT_EQ(m_doubles.condDestroys, 0);
}

TEST_F(ACreatedSync, AddsTheIntervalToTheClock)
{
    m_doubles.clock = {{100, 250000}};
    m_doubles.timedWait = [](pthread_mutex_t*) { return ETIMEDOUT; };
    EXPECT_FALSE(m_sync.SyncTry(2500));
    EXPECT_FALSE(m_sync.SyncTry(999));
    EXPECT_FALSE(m_sync.SyncTry(4294967294));
    EXPECT_THAT(m_doubles.deadlines, ElementsAre(Deadline(102, 750000000), Deadline(101, 249000000),
                                                 Deadline(100 + 4294967, 544000000)));
}

TEST_F(ACreatedSync, KeepsAMillionMicrosecondsAsTheyAre)
{
    m_doubles.clock = {{100, 600000}, {100, 600001}, {100, 599999}};
    m_doubles.timedWait = [](pthread_mutex_t*) { return ETIMEDOUT; };
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(m_sync.SyncTry(400));
    EXPECT_THAT(m_doubles.deadlines, ElementsAre(Deadline(100, 1000000000), Deadline(101, 1000),
                                                 Deadline(100, 999999000)));
}

TEST_F(ACreatedSync, AsksTheClockAgainWhenTheWaitRefusesTheDeadline)
{
    m_doubles.clock = {{100, 600000}, {100, 600003}};
    m_doubles.timedWait = [&](pthread_mutex_t*) {
        return m_doubles.deadlines.size() == 1 ? EINVAL : ETIMEDOUT;
    };
    EXPECT_FALSE(m_sync.SyncTry(400));
    EXPECT_THAT(m_doubles.deadlines, ElementsAre(Deadline(100, 1000000000), Deadline(101, 3000)));
}

TEST_F(ACreatedSync, StartsAFullIntervalAgainAfterAWakeUpWithoutASignal)
{
    m_doubles.clock = {{100, 0}, {107, 0}, {200, 500}};
    m_doubles.timedWait = [&](pthread_mutex_t*) {
        return m_doubles.deadlines.size() < 3 ? 0 : ETIMEDOUT;
    };
    EXPECT_FALSE(m_sync.SyncTry(3000));
    EXPECT_EQ(m_doubles.clockReads, 3u);
    EXPECT_THAT(m_doubles.deadlines,
                ElementsAre(Deadline(103, 0), Deadline(110, 0), Deadline(203, 500000)));
}

TEST_F(ACreatedSync, TakesNoSignalThatComesWithTheTimeOut)
{
    m_doubles.timedWait = [&](pthread_mutex_t* mutex) {
        pthread_mutex_unlock(mutex);
        m_sync.Give();
        pthread_mutex_lock(mutex);
        return ETIMEDOUT;
    };
    EXPECT_FALSE(m_sync.SyncTry(10));
    EXPECT_TRUE(m_sync.SyncTry(0));
    EXPECT_FALSE(m_sync.SyncTry(0));
}

TEST_F(ACreatedSync, DestroyedByTheOneThatItWokeIsNotTouchedAgain)
{
    for (int i = 0; i < 2000; ++i) {
        auto pSync = std::make_unique<CBillingSync>();
        pSync->Create();
        std::thread giver([raw = pSync.get()] { raw->Give(); });
        pSync->Take();
        pSync->Destroy();
        pSync.reset();
        giver.join();
    }
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

struct Counted {
    Counted() { ++made; }
    virtual ~Counted() { ++deleted; }
    static int made;
    static int deleted;
};
int Counted::made = 0;
int Counted::deleted = 0;

class ASingleton : public WithDoubles {};

TEST_F(ASingleton, IsMadeOnceAndOnFirstUseOnly)
{
    EXPECT_EQ(CBillingSingleton<Counted>::m_pObj, nullptr);
    EXPECT_EQ(Counted::made, 0);
    Counted* const pFirst = BillingInstance<Counted>();
    EXPECT_NE(pFirst, nullptr);
    EXPECT_EQ(BillingInstance<Counted>(), pFirst);
    EXPECT_EQ(CBillingSingleton<Counted>::m_pObj, pFirst);
    EXPECT_EQ(Counted::made, 1);

    BillingDeleteInstance<Counted>();
    EXPECT_EQ(CBillingSingleton<Counted>::m_pObj, nullptr);
    EXPECT_EQ(Counted::deleted, 1);
    BillingDeleteInstance<Counted>();
    EXPECT_EQ(Counted::deleted, 1);
}

/// Notes whether the lock was held while the instance was made and deleted.
struct LockSeen {
    LockSeen() { madeUnderLock = trylock() == EBUSY; }
    ~LockSeen() { deletedUnderLock = trylock() == EBUSY; }
    static int trylock()
    {
        return pthread_mutex_trylock(&CBillingSingleton<LockSeen>::m_tSingletonLock);
    }
    static bool madeUnderLock;
    static bool deletedUnderLock;
};
bool LockSeen::madeUnderLock = false;
bool LockSeen::deletedUnderLock = false;

TEST_F(ASingleton, IsMadeAndDeletedUnderItsLock)
{
    EXPECT_NE(BillingInstance<LockSeen>(), nullptr);
    EXPECT_TRUE(LockSeen::madeUnderLock);
    BillingDeleteInstance<LockSeen>();
    EXPECT_TRUE(LockSeen::deletedUnderLock);
    EXPECT_EQ(LockSeen::trylock(), 0);
    pthread_mutex_unlock(&CBillingSingleton<LockSeen>::m_tSingletonLock);
}

TEST_F(ASingleton, IsOneForAllThreads)
{
    struct Shared {};
    std::vector<Shared*> seen(8);
    std::vector<std::thread> threads;
    for (Shared*& pSeen : seen)
        threads.emplace_back([&pSeen] { pSeen = BillingInstance<Shared>(); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_NE(seen[0], nullptr);
    EXPECT_THAT(seen, ::testing::Each(seen[0]));
    BillingDeleteInstance<Shared>();
}

}  // namespace
