// task_steps_test.cpp - the steps of the task framework in order: the locks held for each, and when each
// object is made and released.
#include "step_doubles.h"

#include <cerrno>
#include <memory>

namespace {

const LinesOf SOURCE{"BillingTaskBase.cpp"};

const char* const CREATED = "lock sync; cond init; unlock sync";
const char* const DESTROYED = "lock sync; cond destroy; unlock sync";
const char* const TAKEN = "lock sync; unlock sync";
const char* const GIVEN = "lock sync; signal; unlock sync";

class ASync : public StepByStep {
protected:
    void SetUp() override
    {
        StepByStep::SetUp();
        m_oSync.Create();
        EXPECT_EQ(happened(), Did({CREATED}));
    }
    void TearDown() override
    {
        m_oSync.Destroy();
        StepByStep::TearDown();
    }
    int give()
    {
        m_oSync.Give();
        return 0;
    }
    CBillingSync m_oSync;
};

TEST_F(ASync, IsGivenTakenAndDestroyedUnderTheOneLock)
{
    CBillingSync oOther;
    oOther.Create();
    oOther.Give();
    oOther.Take();
    oOther.Destroy();

    EXPECT_EQ(happened(), Did({CREATED, GIVEN, TAKEN, DESTROYED}));
}

TEST_F(ASync, IsNotMadeTwice)
{
    const Line tRefused = LinesOf{"BillingTaskBase.cpp"}.refused("Create", "FlagCreate()");

    EXPECT_FALSE(m_oSync.Create());

    EXPECT_EQ(happened(), Did({"lock sync"}) + These(tRefused) + Did({"unlock sync"}));
}

TEST_F(ASync, WaitsAgainAfterAWakeUpWithoutASignal)
{
    Doubles().waits = {[] { return 0; }, [] { return 0; }, [this] { return give(); }};

    m_oSync.Take();

    EXPECT_EQ(happened(),
              Did({"lock sync; wait sync; wait sync; wait sync", GIVEN, "unlock sync"}));
    EXPECT_FALSE(m_oSync.SyncTry(0)) << "the signal is taken";
}

TEST_F(ASync, WaitsForEverAsTakeDoes)
{
    Doubles().waits = {[this] { return give(); }};

    EXPECT_TRUE(m_oSync.SyncTry(0xFFFFFFFF));

    EXPECT_EQ(happened(), Did({"lock sync; wait sync", GIVEN, "unlock sync"}));
}

TEST_F(ASync, ReadsTheClockForEachTimedWait)
{
    Doubles().waits = {[] { return EINTR; }, [] { return EINVAL; }, [this] { return give(); }};

    EXPECT_TRUE(m_oSync.SyncTry(1500));

    EXPECT_EQ(happened(), Did({"lock sync; clock; wait sync until 1001 s 750000000 ns; clock; "
                               "wait sync until 1001 s 750000000 ns; clock; "
                               "wait sync until 1001 s 750000000 ns",
                               GIVEN, "unlock sync"}));
}

TEST_F(ASync, EndsATimedWaitOnTheTimeOutAlone)
{
    Doubles().waits = {[this] {
        give();
        return ETIMEDOUT;
    }};

    EXPECT_FALSE(m_oSync.SyncTry(800));

    EXPECT_EQ(happened(),
              Did({"lock sync; clock; wait sync until 1001 s 50000000 ns", GIVEN, "unlock sync"}));
    EXPECT_TRUE(m_oSync.SyncTry(0)) << "the signal stays";
    EXPECT_EQ(happened(), Did({TAKEN})) << "a poll reads no clock";
}

class ALoop : public StepByStep {
protected:
    void create(bool bDefault)
    {
        Doubles().names = {"loop"};
        EXPECT_TRUE(m_oLoop.Create(bDefault));
    }
    // Runs the first dispatch, which unlocks the loop, twice.
    void dispatch()
    {
        EXPECT_EQ(CBillingMainLoop::UnLock(&m_oLoop), FALSE);
        EXPECT_EQ(CBillingMainLoop::UnLock(&m_oLoop), FALSE) << "a second one unlocks nothing";
    }
    CBillingMainLoop m_oLoop;
};

TEST_F(ALoop, OfItsOwnIsMadeRunAndDestroyed)
{
    create(false);
    EXPECT_EQ(happened(), Did({"init loop; context; invoke on own at -100 UnLock; loop on own"}));

    Doubles().run = [this] { dispatch(); };
    m_oLoop.MainLoopRun();
    EXPECT_EQ(happened(), Did({"lock loop; run; unlock loop"}));

    m_oLoop.Destory();
    EXPECT_EQ(happened(), Did({"lock loop; quit; context gone; loop gone; unlock loop"}));
}

TEST_F(ALoop, OnTheDefaultContextIsMadeRunAndDestroyed)
{
    create(true);
    EXPECT_EQ(happened(), Did({"init loop; loop on default"}));

    Doubles().run = [this] { dispatch(); };
    m_oLoop.MainLoopRun();
    EXPECT_EQ(happened(), Did({"lock loop; idle source; priority -100; callback UnLock; "
                               "attach to default; source gone; run; unlock loop"}));

    m_oLoop.Destory();
    EXPECT_EQ(happened(), Did({"lock loop; quit; loop gone; unlock loop"}));
}

TEST_F(ALoop, ThatIsNotMadeIsNotRunAndLetsGoOfItsContext)
{
    Doubles().names = {"loop", "loop"};
    Doubles().bNoContext = true;
    EXPECT_FALSE(m_oLoop.Create(false));
    EXPECT_EQ(happened(), Did({"init loop; context"}));

    Doubles().bNoContext = false;
    Doubles().bNoLoop = true;
    EXPECT_FALSE(m_oLoop.Create(false));
    EXPECT_EQ(happened(), Did({"init loop; context; invoke on own at -100 UnLock; loop on own; "
                               "context gone"}));

    m_oLoop.MainLoopRun();
    EXPECT_EQ(happened(), Did({"lock loop; unlock loop"}));
}

TEST_F(ALoop, TakesWorkAndTimeoutsUnderItsLockAndLetsGoOfThemInTheirOrder)
{
    for (const bool bDefault : {false, true}) {
        create(bDefault);
        happened();
        const std::string strContext = bDefault ? "default" : "own";
        const std::string strInvoked = "lock loop; invoke on " + strContext + "; unlock loop";
        const auto added = [&](const char* szInterval) {
            return "lock loop; source every " + std::string(szInterval) +
                   " ms; callback; attach to " + strContext + "; unlock loop";
        };
        const GSourceFunc pfnNothing = [](gpointer) { return FALSE; };

        m_oLoop.MainContextInvoke(pfnNothing, nullptr);
        EXPECT_EQ(happened(), Did({strInvoked.c_str()}));
        m_oLoop.AddTimeoutSource(10, pfnNothing, nullptr);
        EXPECT_EQ(happened(), Did({added("10").c_str()}));
        GSource* pDeleted = m_oLoop.AddTimeoutSource(20, pfnNothing, nullptr);
        m_oLoop.AddTimeoutSource(30, pfnNothing, nullptr);
        happened();
        m_oLoop.DeleteSource(pDeleted);
        EXPECT_EQ(happened(), Did({"lock loop; source gone 20; unlock loop"}));
        m_oLoop.DeleteSource(pDeleted);
        EXPECT_EQ(happened(), Did({"lock loop; unlock loop"}));

        m_oLoop.Destory();
        EXPECT_EQ(happened(), Did({"lock loop; quit; source gone 10; source gone 30",
                                   bDefault ? "loop gone; unlock loop"
                                            : "context gone; loop gone; unlock loop"}));
    }
}

TEST_F(ALoop, AddsNoTimeoutThatGlibDoesNotMake)
{
    create(false);
    Doubles().bNoSource = true;
    happened();

    EXPECT_EQ(m_oLoop.AddTimeoutSource(10, nullptr, nullptr), nullptr);

    EXPECT_EQ(happened(), Did({"lock loop; source every 10 ms; unlock loop"}));
    m_oLoop.Destory();
    EXPECT_EQ(happened(), Did({"lock loop; quit; context gone; loop gone; unlock loop"}));
}

class Body : public CBillingThreadBase {
public:
    void t_Main() override { Note("body"); }
};

const char* const STARTING = "attributes; detached; stack 4711; thread; attributes gone";

TEST_F(StepByStep, AThreadStartsBehindItsGateAndEndsWithItsSignal)
{
    Body oBody;
    ASSERT_TRUE(oBody.Create(4711));
    EXPECT_EQ(happened(),
              Did({"lock threads", CREATED, CREATED, STARTING, GIVEN, "unlock threads"}));

    EXPECT_EQ(CBillingThreadBase::Main(&oBody), nullptr);
    EXPECT_EQ(happened(), Did({TAKEN, "body", GIVEN}));

    oBody.Destroy();
    EXPECT_EQ(happened(), Did({TAKEN, DESTROYED, DESTROYED}));
}

TEST_F(StepByStep, AThreadThatCannotBeHadLeavesNothingBehind)
{
    for (const int iResult : {EAGAIN, -1}) {
        Body oBody;
        Doubles().iThreadResult = iResult;

        EXPECT_FALSE(oBody.Create(4711));

        EXPECT_EQ(happened(), Did({"lock threads", CREATED, CREATED, STARTING, DESTROYED, DESTROYED,
                                   "unlock threads"}));
        EXPECT_FALSE(oBody.FlagCreate());
    }
}

class Worker : public CBillingTaskBase {
public:
    bool t_OnEvent(PTEvent* e) override
    {
        Note("event " + std::to_string(e->id));
        return CBillingTaskBase::t_OnEvent(e);
    }
    bool t_Create() override
    {
        Note("t_Create");
        return bStarts;
    }
    bool t_Destroy() override
    {
        Note("t_Destroy");
        return true;
    }
    bool bStarts = true;
};

class AWorker : public StepByStep {
protected:
    void SetUp() override
    {
        StepByStep::SetUp();
        Doubles().names = {"events", "loop"};
    }
    void TearDown() override
    {
        if (m_oWorker.FlagCreate()) {
            // The test runs the thread's body, which has nothing to do.
            m_oWorker.bStarts = false;
            CBillingThreadBase::Main(&m_oWorker);
            m_oWorker.Destroy();
        }
        StepByStep::TearDown();
    }
    void create()
    {
        ASSERT_TRUE(m_oWorker.Create());
        happened();
    }
    void put(std::int32_t iId)
    {
        PTEvent tEvent;
        tEvent.id = iId;
        m_oWorker.PutEvent(&tEvent);
    }
    Worker m_oWorker;
};

const char* const LOOP_GONE = "lock loop; quit; context gone; loop gone; unlock loop";

TEST_F(AWorker, IsNotDestroyedBeforeItIsMade)
{
    m_oWorker.Destroy();

    EXPECT_EQ(happened(),
              These(LinesOf{"BillingTaskBase.cpp"}.refused("Destroy", "FlagCreate() != true")));
}

TEST_F(AWorker, IsNotMadeTwice)
{
    create();

    EXPECT_FALSE(m_oWorker.Create());

    EXPECT_EQ(happened(), These(LinesOf{"BillingTaskBase.cpp"}.refused("Create", "FlagCreate()")));
}

TEST_F(AWorker, IsMadeOfALoopAndAThreadAndEndsWithItsQuitEvent)
{
    ASSERT_TRUE(m_oWorker.Create());
    EXPECT_EQ(happened(),
              Did({"init events; init loop; context; invoke on own at -100 UnLock; loop on own",
                   "lock threads", CREATED, CREATED,
                   "attributes; detached; stack 131072; thread; attributes gone", GIVEN,
                   "unlock threads"}));

    put(BILLING_EVENT_QUIT);
    put(7);
    EXPECT_EQ(happened(), Did({"lock events; lock loop; invoke on own HandleEvent; unlock loop; "
                               "unlock events; lock events; unlock events"}));

    Doubles().run = [this] { CBillingTaskBase::HandleEvent(&m_oWorker); };
    CBillingThreadBase::Main(&m_oWorker);
    EXPECT_EQ(happened(),
              Did({TAKEN, "t_Create; lock loop; run; lock events; unlock events; event 0",
                   LOOP_GONE, "t_Destroy", GIVEN}));

    m_oWorker.Destroy();
    EXPECT_EQ(happened(), Did({TAKEN, DESTROYED, DESTROYED, "lock events; unlock events"}));
}

TEST_F(AWorker, ThatGetsNoThreadLetsGoOfItsLoop)
{
    Doubles().iThreadResult = EAGAIN;

    EXPECT_FALSE(m_oWorker.Create());

    EXPECT_EQ(happened(),
              Did({"init events; init loop; context; invoke on own at -100 UnLock; loop on own",
                   "lock threads", CREATED, CREATED,
                   "attributes; detached; stack 131072; thread; attributes gone", DESTROYED,
                   DESTROYED, "unlock threads", LOOP_GONE}));
}

TEST_F(AWorker, ThatGetsNoLoopAsksForNoThread)
{
    Doubles().bNoContext = true;

    EXPECT_FALSE(m_oWorker.Create());

    EXPECT_EQ(happened(), Did({"init events; init loop; context"}));
}

TEST_F(AWorker, ThatDoesNotStartLetsGoOfItsLoopAndIsNotEnded)
{
    create();
    m_oWorker.bStarts = false;

    CBillingThreadBase::Main(&m_oWorker);

    EXPECT_EQ(happened(), Did({TAKEN, "t_Create", LOOP_GONE, GIVEN}));
    m_oWorker.Destroy();
}

TEST_F(AWorker, HandlesEachEventOutsideTheQueuesLockAndThenGivesItsSignal)
{
    create();
    CBillingSync oSync;
    oSync.Create();
    PTEvent tEvent;
    tEvent.id = 7;
    tEvent.sync = &oSync;
    m_oWorker.PutEvent(&tEvent);
    put(8);
    happened();

    EXPECT_EQ(CBillingTaskBase::HandleEvent(&m_oWorker), FALSE);

    EXPECT_EQ(happened(),
              Did({"lock events; unlock events; event 7", GIVEN,
                   "lock events; unlock events; event 8", "lock events; unlock events"}));
    put(9);
    EXPECT_EQ(happened(), Did({"lock events; lock loop; invoke on own HandleEvent; unlock loop; "
                               "unlock events"}))
        << "the empty queue is scheduled again";
    oSync.Destroy();
}

TEST_F(AWorker, WaitsASecondForTheOtherSideOfAHandshake)
{
    create();
    auto pSyncs = std::make_unique<CBillingSync[]>(2);
    pSyncs[0].Create();
    pSyncs[1].Create();
    PTEvent tEvent;
    tEvent.id = BILLING_EVENT_HANDSHAKE;
    tEvent.param = pSyncs.get();
    happened();

    Doubles().waits = {[] { return ETIMEDOUT; }};
    EXPECT_FALSE(m_oWorker.t_OnEvent(&tEvent));
    EXPECT_EQ(happened(), Did({"event 1", GIVEN,
                               "lock sync; clock; wait sync until 1001 s 250000000 ns; "
                               "unlock sync"}) +
                              Steps{SOURCE.refused("t_OnEvent", "!ret")});

    pSyncs[1].Give();
    happened();
    EXPECT_TRUE(m_oWorker.t_OnEvent(&tEvent));
    static_cast<void>(pSyncs.release());
    EXPECT_EQ(happened(), Did({"event 1", GIVEN, TAKEN, DESTROYED, DESTROYED}));
}

TEST_F(AWorker, SendsAndWaitsForTheEnd)
{
    create();
    PTEvent tEvent;
    tEvent.id = 7;
    tEvent.receiver = &m_oWorker;
    Doubles().waits = {[this] {
        CBillingTaskBase::HandleEvent(&m_oWorker);
        return 0;
    }};

    m_oWorker.Send(&tEvent, true);
    EXPECT_EQ(happened(),
              Did({CREATED,
                   "lock events; lock loop; invoke on own HandleEvent; unlock loop; unlock events",
                   "lock sync; wait sync; lock events; unlock events; event 7", GIVEN,
                   "lock events; unlock events; unlock sync", DESTROYED}));
}

TEST_F(AWorker, DoesNotWaitForItself)
{
    Doubles().bOwnThread = true;
    create();
    PTEvent tEvent;
    tEvent.receiver = &m_oWorker;

    m_oWorker.Send(&tEvent, true);

    EXPECT_EQ(tEvent.sync, nullptr);
    EXPECT_EQ(happened(), Did({"lock events; lock loop; invoke on own HandleEvent; unlock loop; "
                               "unlock events"}));
}

}  // namespace
