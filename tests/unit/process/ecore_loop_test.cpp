// ecore_loop_test.cpp - Ecore's own start and loop, and when a signal comes in.
#include "child.h"
#include "loop.h"
#include "process/main_loop.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <map>
#include <string>
#include <vector>

namespace {

using test::answers;
using test::inLoop;
using test::joined;
using test::kGlib;
using test::Turn;
using test::watch;

void noteSignal(int number)
{
    test::events().push_back("signal " + std::to_string(number == SIGTERM));
}

gboolean raiseTerm(int, GIOCondition, void*)
{
    raise(SIGTERM);
    test::events().push_back("raised");
    return G_SOURCE_CONTINUE;
}

bool isBlocked(int number)
{
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, number) == 1;
}

TEST(Sigterm, ComesAfterTheDispatchOfABusyLoop)
{
    EXPECT_EQ(inLoop([] {
                  signal(SIGTERM, noteSignal);
                  watch(kGlib, G_IO_IN, raiseTerm);
                  test::wait() = answers(1, {{kGlib, POLLIN}});
                  Turn().take();
                  return joined() + "; blocked " + std::to_string(isBlocked(SIGTERM));
              }),
              "wait none: own:1 300:1; raised; signal 1; blocked 1");
}

TEST(Sigterm, IsOpenDuringTheWaitWhateverTheStarterHasBlocked)
{
    const std::string text = test::inChild([] {
        sigset_t own;
        sigemptyset(&own);
        sigaddset(&own, SIGTERM);
        sigaddset(&own, SIGUSR1);
        pthread_sigmask(SIG_SETMASK, &own, nullptr);
        process::holdSignals();
        ecore_init();
        std::string open;
        test::wait() = [&](std::vector<pollfd>&, const std::string&, const sigset_t& mask) {
            open = std::to_string(sigismember(&mask, SIGTERM)) +
                   std::to_string(sigismember(&mask, SIGUSR1)) +
                   std::to_string(sigismember(&mask, SIGUSR2));
            return 0;
        };
        Turn().take();
        return open + " " + std::to_string(isBlocked(SIGTERM)) + std::to_string(isBlocked(SIGUSR1));
    });
    EXPECT_EQ(text, "010 11");
}

TEST(TheStartOfEcore, LeavesAllSignalsAsTheyWere)
{
    const std::string changed = test::inChild([] {
        process::holdSignals();
        signal(SIGHUP, noteSignal);
        std::map<int, sighandler_t> before;
        for (int number = 1; number < SIGRTMIN; number++) {
            struct sigaction action {};
            sigaction(number, nullptr, &action);
            before[number] = action.sa_handler;
        }
        ecore_init();
        std::string text;
        for (const auto& [number, handler] : before) {
            struct sigaction action {};
            sigaction(number, nullptr, &action);
            if (action.sa_handler != handler)
                text += std::to_string(number) +
                        (action.sa_handler == SIG_IGN ? " ignored " : " other ");
            if (isBlocked(number) != (number == SIGTERM))
                text += std::to_string(number) + " mask ";
        }
        return text;
    });
    EXPECT_EQ(changed, std::to_string(SIGPIPE) + " ignored ");
}

TEST(TheStartOfEcore, EndsWithSignalsThatCanBeChanged)
{
    EXPECT_EQ(inLoop([] {
                  struct sigaction action {};
                  struct sigaction previous {};
                  action.sa_handler = noteSignal;
                  const int first = sigaction(SIGUSR1, &action, &previous);
                  const bool plain = previous.sa_handler == SIG_DFL;
                  sigaction(SIGUSR1, nullptr, &previous);
                  const int wrong = sigaction(1000, &action, nullptr);
                  sigset_t one;
                  sigemptyset(&one);
                  sigaddset(&one, SIGUSR2);
                  pthread_sigmask(SIG_BLOCK, &one, nullptr);
                  return std::to_string(first) + std::to_string(plain) +
                         std::to_string(previous.sa_handler == noteSignal) + std::to_string(wrong) +
                         std::to_string(isBlocked(SIGUSR2)) +
                         std::to_string(pthread_sigmask(1000, &one, nullptr));
              }),
              "011-11" + std::to_string(EINVAL));
}

TEST(TheStartOfEcore, IsConfiguredFirstAndTakesTheLoopOnce)
{
    EXPECT_EQ(test::inChild([] {
                  const int first = ecore_init();
                  ecore_main_loop_select_func_set(select);
                  signal(SIGPIPE, SIG_DFL);
                  const int second = ecore_init();
                  const bool kept = ecore_main_loop_select_func_get() == select;
                  return joined() + ": " + std::to_string(first) + std::to_string(second) +
                         std::to_string(kept) + std::to_string(signal(SIGPIPE, SIG_DFL) == SIG_DFL);
              }),
              "no system modules; no integration; no system modules; no integration: 1211");
}

TEST(TheLoop, CanBeQuitBeforeTheStart)
{
    EXPECT_EQ(test::inChild([] {
                  ecore_main_loop_quit();
                  return std::string("back");
              }),
              "back");
}

TEST(TheLoop, DoesNotBeginAfterItsEndAndTakesAPendingSignal)
{
    EXPECT_EQ(inLoop([] {
                  signal(SIGTERM, noteSignal);
                  ecore_main_loop_quit();
                  raise(SIGTERM);
                  test::events().push_back("begin");
                  test::wait() = answers(0);
                  ecore_main_loop_begin();
                  return joined();
              }),
              "begin; signal 1");
}

Eina_Bool noteEcore(void*)
{
    test::events().push_back("Ecore");
    raise(SIGTERM);
    return ECORE_CALLBACK_CANCEL;
}

gboolean noteTimeout(void*)
{
    test::events().push_back("GLib");
    ecore_timer_add(0.02, noteEcore, nullptr);
    return G_SOURCE_REMOVE;
}

void quitBySignal(int)
{
    test::events().push_back("signal");
    ecore_main_loop_quit();
}

TEST(TheLoop, RunsBothAndEndsBySignal)
{
    EXPECT_EQ(inLoop([] {
                  signal(SIGTERM, quitBySignal);
                  g_timeout_add(20, noteTimeout, nullptr);
                  ecore_main_loop_begin();
                  return joined();
              }),
              "GLib; Ecore; signal");
}

}  // namespace
