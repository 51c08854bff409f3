// main_loop_test.cpp - CBillingMainLoop on a context of its own and on the default context. Doubles hold the
// loop at its start, make GLib fail to create a loop, and note releases.
#include "BillingTaskBase.h"
#include "log_matchers.h"
#include "waiting.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const LinesOf Source{"BillingTaskBase.cpp"};
const LinesOf Header{"BillingTaskBase.h"};

/// Failures that the doubles produce, and what they have seen.
struct Doubles {
    std::atomic<bool> bHoldRun{false};  ///< g_main_loop_run waits before it begins
    std::atomic<bool> bRunEntered{false};
    bool bNoContext = false;
    bool bNoLoop = false;
    GMainContext* pContext = nullptr;  ///< latest context and loop
    GMainLoop* pLoop = nullptr;
    std::function<bool()> isCreated;  ///< asked when the loop is released

    void note(const std::string& strStep)
    {
        const std::lock_guard<std::mutex> hold(lock);
        steps.push_back(strStep);
    }
    std::vector<std::string> noted()
    {
        const std::lock_guard<std::mutex> hold(lock);
        return steps;
    }

private:
    std::mutex lock;
    std::vector<std::string> steps;
};
Doubles* g_pDoubles = nullptr;

std::string Named(const char* szStep, const void* pWhat)
{
    return szStep + std::string(" ") + std::to_string(reinterpret_cast<std::uintptr_t>(pWhat));
}

}  // namespace

extern "C" {

GMainContext* __real_g_main_context_new();
GMainLoop* __real_g_main_loop_new(GMainContext* context, gboolean running);
void __real_g_main_loop_run(GMainLoop* loop);
void __real_g_main_loop_quit(GMainLoop* loop);
void __real_g_source_unref(GSource* source);
void __real_g_main_context_unref(GMainContext* context);
void __real_g_main_loop_unref(GMainLoop* loop);

GMainContext* __wrap_g_main_context_new()
{
    return g_pDoubles->pContext = g_pDoubles->bNoContext ? nullptr : __real_g_main_context_new();
}

GMainLoop* __wrap_g_main_loop_new(GMainContext* context, gboolean running)
{
    return g_pDoubles->pLoop =
               g_pDoubles->bNoLoop ? nullptr : __real_g_main_loop_new(context, running);
}

void __wrap_g_main_loop_run(GMainLoop* loop)
{
    g_pDoubles->bRunEntered = true;
    Eventually([] { return !g_pDoubles->bHoldRun; });
    g_pDoubles->note("run");
    __real_g_main_loop_run(loop);
}

void __wrap_g_main_loop_quit(GMainLoop* loop)
{
    g_pDoubles->note("quit");
    __real_g_main_loop_quit(loop);
}

void __wrap_g_source_unref(GSource* source)
{
    g_pDoubles->note(Named("source", source));
    __real_g_source_unref(source);
}

void __wrap_g_main_context_unref(GMainContext* context)
{
    g_pDoubles->note("context");
    __real_g_main_context_unref(context);
}

void __wrap_g_main_loop_unref(GMainLoop* loop)
{
    g_pDoubles->note("loop");
    EXPECT_TRUE(!g_pDoubles->isCreated || g_pDoubles->isCreated());
    __real_g_main_loop_unref(loop);
}

}  // extern "C"

namespace {

/// Calls a std::function once, as GLib calls back.
gboolean CallOnce(gpointer data)
{
    (*static_cast<std::function<void()>*>(data))();
    return FALSE;
}

gboolean CountUp(gpointer data)
{
    ++*static_cast<std::atomic<int>*>(data);
    return TRUE;
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

class AnUncreatedMainLoop : public WithDoubles {
protected:
    CBillingMainLoop m_loop;
};

/// Fixture: a created loop and, once started, the thread that runs it, for both kinds of context.
class AMainLoop : public WithDoubles, public ::testing::WithParamInterface<bool> {
protected:
    AMainLoop() { EXPECT_TRUE(m_loop.Create(GetParam())); }
    ~AMainLoop() override { stop(); }

    void start()
    {
        m_doubles.bRunEntered = false;
        m_thread = std::thread([this] { m_loop.MainLoopRun(); });
    }
    /// Starts the thread. Later calls into the loop wait until it dispatches.
    void run()
    {
        start();
        ASSERT_TRUE(Eventually([this] { return m_doubles.bRunEntered.load(); }));
    }
    /// Starts the thread like run(), but the loop does not dispatch until it is released.
    void runHeld()
    {
        m_doubles.bHoldRun = true;
        run();
    }
    void release() { m_doubles.bHoldRun = false; }
    void stop()
    {
        release();
        if (m_loop.FlagCreate())
            m_loop.Destory();
        if (m_thread.joinable())
            m_thread.join();
    }
    /// Runs the function on the loop and waits for its end.
    void onLoop(std::function<void()> function)
    {
        std::promise<void> done;
        std::function<void()> call = [&] {
            function();
            done.set_value();
        };
        m_loop.MainContextInvoke(CallOnce, &call);
        done.get_future().wait();
    }

    CBillingMainLoop m_loop;
    std::thread m_thread;
};

INSTANTIATE_TEST_SUITE_P(Context, AMainLoop, ::testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Default" : "Private"; });

TEST_F(AnUncreatedMainLoop, InvokesAndAddsNothingWithoutALine)
{
    std::atomic<int> calls{0};
    m_loop.MainContextInvoke(CountUp, &calls);
    EXPECT_EQ(m_loop.AddTimeoutSource(1, CountUp, &calls), nullptr);
    m_loop.DeleteSource(nullptr);
    EXPECT_EQ(calls, 0);
    EXPECT_THAT(LoggedLines(), IsEmpty());
    EXPECT_THAT(m_doubles.noted(), IsEmpty());
}

TEST_F(AnUncreatedMainLoop, ReturnsFromRunAtOnceAndLeavesTheMutexUnlocked)
{
    m_loop.MainLoopRun();
    EXPECT_FALSE(m_doubles.bRunEntered);
    m_loop.MainContextInvoke(CountUp, nullptr);
    m_loop.Destory();
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("Destory", "FlagCreate() != true")));
}

TEST_F(AnUncreatedMainLoop, RefusesDestory)
{
    m_loop.Destory();
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("Destory", "FlagCreate() != true")));
    EXPECT_THAT(m_doubles.noted(), IsEmpty());
}

TEST_F(AnUncreatedMainLoop, StaysSoWithoutAContextAndSaysNothing)
{
    m_doubles.bNoContext = true;
    EXPECT_FALSE(m_loop.Create(false));
    EXPECT_FALSE(m_loop.FlagCreate());
    EXPECT_THAT(LoggedLines(), IsEmpty());
    EXPECT_THAT(m_doubles.noted(), IsEmpty());
}

TEST_F(AnUncreatedMainLoop, StaysSoWithoutALoopAndLetsGoOfTheContext)
{
    m_doubles.bNoLoop = true;
    EXPECT_FALSE(m_loop.Create(false));
    EXPECT_FALSE(m_loop.FlagCreate());
    EXPECT_THAT(m_doubles.noted(), ElementsAre("context"));
    EXPECT_FALSE(m_loop.Create(true));
    EXPECT_THAT(m_doubles.noted(), ElementsAre("context"));
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_F(AnUncreatedMainLoop, UnlocksNothing)
{
    EXPECT_EQ(CBillingMainLoop::UnLock(&m_loop), FALSE);
    m_loop.DeleteSource(nullptr);
}

TEST_F(AnUncreatedMainLoop, DestructedAfterCreateIsLoggedAndReleasesNothing)
{
    {
        CBillingMainLoop loop;
        ASSERT_TRUE(loop.Create(false));
    }
    EXPECT_THAT(LoggedLines(),
                ElementsAre(Header.refused("~CBillingMainLoop", "FlagCreate() != false")));
    EXPECT_THAT(m_doubles.noted(), IsEmpty());
    g_main_context_unref(m_doubles.pContext);
    g_main_loop_unref(m_doubles.pLoop);
}

TEST_P(AMainLoop, RefusesASecondCreate)
{
    EXPECT_FALSE(m_loop.Create(GetParam()));
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("Create", "FlagCreate() != false")));
    EXPECT_TRUE(m_loop.FlagCreate());
}

TEST_P(AMainLoop, MakesAContextOnlyWhenItIsItsOwn)
{
    EXPECT_EQ(m_doubles.pContext != nullptr, !GetParam());
    EXPECT_EQ(g_main_loop_get_context(m_doubles.pLoop),
              GetParam() ? g_main_context_default() : m_doubles.pContext);
}

TEST_P(AMainLoop, RunsAFunctionOnItsThread)
{
    run();
    std::thread::id ran;
    onLoop([&] { ran = std::this_thread::get_id(); });
    EXPECT_EQ(ran, m_thread.get_id());
}

TEST_P(AMainLoop, RunsAFunctionAtOnceForACallerOnItsThread)
{
    run();
    std::vector<std::string> order;
    std::function<void()> inner = [&] { order.emplace_back("inner"); };
    onLoop([&] {
        m_loop.MainContextInvoke(CallOnce, &inner);
        order.emplace_back("outer");
    });
    EXPECT_THAT(order, ElementsAre("inner", "outer"));
}

TEST_P(AMainLoop, LetsAnInvokeWaitUntilItDispatchesAndRunsItOnItsThread)
{
    runHeld();
    std::atomic<bool> bReturned{false};
    std::promise<std::thread::id> ran;
    std::function<void()> call = [&] { ran.set_value(std::this_thread::get_id()); };
    std::thread caller([&] {
        m_loop.MainContextInvoke(CallOnce, &call);
        bReturned = true;
    });
    EXPECT_TRUE(NotYet([&] { return bReturned.load(); }));
    release();
    EXPECT_EQ(ran.get_future().get(), m_thread.get_id());
    caller.join();
}

TEST_P(AMainLoop, LetsATimeoutWaitUntilItDispatches)
{
    runHeld();
    std::atomic<GSource*> pSource{nullptr};
    std::atomic<int> fired{0};
    std::thread caller([&] { pSource = m_loop.AddTimeoutSource(1, CountUp, &fired); });
    EXPECT_TRUE(NotYet([&] { return pSource != nullptr; }));
    release();
    caller.join();
    EXPECT_NE(pSource, nullptr);
    EXPECT_TRUE(Eventually([&] { return fired >= 2; }));
    onLoop([&] { g_source_destroy(pSource); });
}

TEST_P(AMainLoop, LosesNoDestoryThatComesBeforeItDispatches)
{
    runHeld();
    std::atomic<bool> bReturned{false};
    std::thread caller([&] {
        m_loop.Destory();
        bReturned = true;
    });
    EXPECT_TRUE(NotYet([&] { return bReturned.load(); }));
    release();
    caller.join();
    m_thread.join();
    EXPECT_FALSE(m_loop.FlagCreate());
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_P(AMainLoop, DoesNotRunWhenDestoryedBefore)
{
    m_loop.Destory();
    m_loop.MainLoopRun();
    EXPECT_FALSE(m_doubles.bRunEntered);
}

TEST_P(AMainLoop, FiresATimeoutUntilItsCallbackSaysStop)
{
    struct Ticks {
        std::atomic<int> fired{0};
        std::thread::id thread;
    } ticks;
    run();
    GSource* const pSource = m_loop.AddTimeoutSource(
        1,
        [](gpointer data) -> gboolean {
            auto* const pTicks = static_cast<Ticks*>(data);
            pTicks->thread = std::this_thread::get_id();
            return ++pTicks->fired < 3;
        },
        &ticks);
    ASSERT_NE(pSource, nullptr);
    EXPECT_TRUE(Eventually([&] { return ticks.fired == 3; }));
    EXPECT_TRUE(NotYet([&] { return ticks.fired > 3; }));
    onLoop([] {});
    EXPECT_EQ(ticks.thread, m_thread.get_id());
    EXPECT_TRUE(g_source_is_destroyed(pSource));
    m_loop.DeleteSource(pSource);
}

TEST_P(AMainLoop, DeletesASourceOnlyByLettingGoOfIt)
{
    std::atomic<int> fired{0};
    run();
    GSource* const pSource = m_loop.AddTimeoutSource(1, CountUp, &fired);
    EXPECT_TRUE(Eventually([&] { return fired > 0; }));
    m_loop.DeleteSource(pSource);
    const int before = fired;
    EXPECT_TRUE(Eventually([&] { return fired > before + 2; }));
    onLoop([&] { g_source_destroy(pSource); });
}

TEST_P(AMainLoop, IgnoresASourceThatItDidNotAdd)
{
    GSource* const pStranger = g_timeout_source_new(1);
    m_loop.DeleteSource(pStranger);
    m_loop.DeleteSource(nullptr);
    EXPECT_THAT(m_doubles.noted(), IsEmpty());
    EXPECT_THAT(LoggedLines(), IsEmpty());
    g_source_unref(pStranger);
}

TEST_P(AMainLoop, ForgetsADeletedSourceAndKeepsTheOrderOfTheRest)
{
    std::atomic<int> fired{0};
    std::vector<GSource*> sources;
    for (int i = 0; i < 4; ++i)
        sources.push_back(m_loop.AddTimeoutSource(60000, CountUp, &fired));
    m_loop.DeleteSource(sources[1]);
    m_loop.DeleteSource(sources[1]);
    EXPECT_THAT(m_doubles.noted(), ElementsAre(Named("source", sources[1])));
    for (GSource* const pSource : sources)
        g_source_destroy(pSource);
    m_doubles.isCreated = [this] { return m_loop.FlagCreate(); };
    m_loop.Destory();
    std::vector<std::string> expected = {Named("source", sources[1]), "quit",
                                         Named("source", sources[0]), Named("source", sources[2]),
                                         Named("source", sources[3])};
    if (!GetParam())
        expected.emplace_back("context");
    expected.emplace_back("loop");
    EXPECT_EQ(m_doubles.noted(), expected);
}

TEST_P(AMainLoop, RefusesASecondDestoryAndDoesNothing)
{
    m_loop.Destory();
    const auto steps = m_doubles.noted();
    m_loop.Destory();
    EXPECT_EQ(m_doubles.noted(), steps);
    EXPECT_THAT(LoggedLines(), ElementsAre(Source.refused("Destory", "FlagCreate() != true")));
}

TEST_P(AMainLoop, CanBeQuitFromItsOwnThread)
{
    run();
    onLoop([this] { m_loop.Destory(); });
    m_thread.join();
    EXPECT_FALSE(m_loop.FlagCreate());
}

TEST_P(AMainLoop, IsCreatedAndRunAgainAfterDestory)
{
    for (int i = 0; i < 3; ++i) {
        run();
        int ran = 0;
        onLoop([&] { ++ran; });
        EXPECT_EQ(ran, 1);
        std::atomic<int> fired{0};
        GSource* const pSource = m_loop.AddTimeoutSource(1, CountUp, &fired);
        EXPECT_TRUE(Eventually([&] { return fired > 0; }));
        onLoop([&] { g_source_destroy(pSource); });
        m_loop.Destory();
        m_thread.join();
        ASSERT_TRUE(m_loop.Create(GetParam()));
    }
    EXPECT_THAT(LoggedLines(), IsEmpty());
}

TEST_P(AMainLoop, SurvivesADestoryAtAnyMomentOfItsStart)
{
    for (int i = 0; i < 300; ++i) {
        start();
        for (int spin = 0; spin < i % 50; ++spin)
            std::this_thread::yield();
        m_loop.Destory();
        m_thread.join();
        ASSERT_TRUE(m_loop.Create(GetParam()));
    }
}

TEST_F(AnUncreatedMainLoop, GivesEachSourceBackOnce)
{
    ASSERT_TRUE(m_loop.Create(false));
    GSource* const pSource = m_loop.AddTimeoutSource(60000, CountUp, nullptr);
    ASSERT_NE(g_source_ref(pSource), nullptr);
    EXPECT_FALSE(m_loop.Create(false)) << "it keeps its sources";
    EXPECT_EQ(pSource->ref_count, 3u) << "of the context, the loop and the test";

    m_loop.Destory();
    EXPECT_EQ(pSource->ref_count, 1u);
    m_loop.DeleteSource(pSource);
    EXPECT_EQ(pSource->ref_count, 1u) << "the loop has forgotten it";
    g_source_unref(pSource);
}

}  // namespace
