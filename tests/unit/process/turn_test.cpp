// turn_test.cpp - a turn of the main loop: what it waits for, what it reports and dispatches, and its
// end before, in and after the wait.
#include "loop.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

namespace {

using test::answers;
using test::inLoop;
using test::joined;
using test::kEcore;
using test::kGlib;
using test::Turn;
using test::watch;

/// A source of GLib with a chosen wait.
struct Timed {
    GSource source;
    int milliseconds;
};

gboolean prepareTimed(GSource* source, int* milliseconds)
{
    *milliseconds = reinterpret_cast<Timed*>(source)->milliseconds;
    return FALSE;
}

void waitOfGlib(int milliseconds)
{
    static GSourceFuncs functions{prepareTimed, nullptr, nullptr, nullptr, nullptr, nullptr};
    GSource* const source = g_source_new(&functions, sizeof(Timed));
    reinterpret_cast<Timed*>(source)->milliseconds = milliseconds;
    g_source_attach(source, nullptr);
}

gboolean noteGlib(int fd, GIOCondition what, void*)
{
    test::events().push_back("GLib " + std::to_string(fd) + ":" + std::to_string(what));
    errno = EDOM;
    return G_SOURCE_CONTINUE;
}

TEST(ATurn, WaitsForBoth)
{
    const std::string events = inLoop([] {
        test::wait() = answers(0);
        watch(kGlib, G_IO_IN, noteGlib);
        watch(kGlib + 1, G_IO_OUT, noteGlib);
        watch(kGlib + 2, G_IO_PRI, noteGlib);
        Turn turn;
        FD_SET(0, &turn.readable);
        FD_SET(kEcore, &turn.readable);
        FD_SET(kEcore + 1, &turn.writable);
        FD_SET(kEcore + 2, &turn.exceptional);
        FD_SET(kEcore + 3, &turn.readable);
        FD_SET(kEcore + 3, &turn.writable);
        FD_SET(kEcore + 3, &turn.exceptional);
        FD_SET(kEcore + 4, &turn.readable);
        turn.take(nullptr, kEcore + 4);
        return joined();
    });
    EXPECT_EQ(events, "wait none: own:1 300:1 301:4 302:2 0:1 400:1 401:4 402:2 403:7");
}

TEST(ATurn, ForgetsTheTurnBefore)
{
    const std::string events = inLoop([] {
        test::wait() = answers(2, {{kEcore, POLLIN}, {kEcore + 1, POLLIN}});
        std::vector<unsigned> sources;
        for (int i = 0; i < 5; i++)
            sources.push_back(g_unix_fd_add(kGlib + i, G_IO_IN, noteGlib, nullptr));
        Turn first;
        FD_SET(kEcore, &first.readable);
        first.take();
        for (const unsigned source : sources)
            g_source_remove(source);
        Turn second;
        FD_SET(kEcore, &second.readable);
        FD_SET(kEcore + 1, &second.readable);
        second.take();
        Turn third;
        FD_SET(kEcore, &third.readable);
        const int result = third.take();
        return joined() + ": " + std::to_string(result) + third.marks();
    });
    EXPECT_EQ(events,
              "wait none: own:1 300:1 301:1 302:1 303:1 304:1 400:1; wait none: own:1 400:1 401:1; "
              "wait none: own:1 400:1: 1 400r");
}

TEST(ATurn, HasRoomForAnyNumberOfDescriptors)
{
    const std::string polled = inLoop([] {
        for (int i = 0; i < 1000; i++)
            watch(kGlib + i, G_IO_IN, noteGlib);
        std::string text;
        test::wait() = [&](std::vector<pollfd>& all, const std::string&, const sigset_t&) {
            text = std::to_string(all.size());
            for (std::size_t i = 1; i < all.size(); i++)
                text += all[i].fd == kGlib + static_cast<int>(i) - 1
                            ? ""
                            : " " + std::to_string(all[i].fd);
            return 0;
        };
        Turn().take();
        return text;
    });
    EXPECT_EQ(polled, "1001");
}

/// @param glib milliseconds; negative: no limit
/// @param ecore seconds; negative: no limit
std::string limitOf(int glib, double ecore)
{
    return inLoop([&] {
        std::string found;
        test::wait() = [&](std::vector<pollfd>&, const std::string& limit, const sigset_t&) {
            found = limit;
            return 0;
        };
        waitOfGlib(glib);
        timeval limit{static_cast<time_t>(ecore),
                      static_cast<suseconds_t>((ecore - static_cast<int>(ecore)) * 1e6)};
        Turn().take(ecore < 0 ? nullptr : &limit);
        return found;
    });
}

TEST(TheLimitOfAWait, IsTheNearerOfBoth)
{
    EXPECT_EQ(limitOf(-1, -1), "none");
    EXPECT_EQ(limitOf(1700, -1), "1.700000000");
    EXPECT_EQ(limitOf(2000000, -1), "2000.000000000");
    EXPECT_EQ(limitOf(-1, 2.25), "2.250000000");
    EXPECT_EQ(limitOf(1700, 2.25), "1.700000000");
    EXPECT_EQ(limitOf(3100, 2.25), "2.250000000");
    EXPECT_EQ(limitOf(2100, 2.25), "2.100000000");
    EXPECT_EQ(limitOf(2300, 2.25), "2.250000000");
    EXPECT_EQ(limitOf(0, -1), "0.000000000");
    EXPECT_EQ(limitOf(0, 2.25), "0.000000000");
    EXPECT_EQ(limitOf(1700, 0), "0.000000000");
}

/// @return what Ecore is told of a descriptor that it wants for reading, writing and exceptions as these
/// say, when poll() reports this
std::string told(const std::string& wanted, int ready)
{
    return inLoop([&] {
        test::wait() = answers(1, {{kEcore, ready}});
        Turn turn;
        if (wanted.find('r') != std::string::npos)
            FD_SET(kEcore, &turn.readable);
        if (wanted.find('w') != std::string::npos)
            FD_SET(kEcore, &turn.writable);
        if (wanted.find('x') != std::string::npos)
            FD_SET(kEcore, &turn.exceptional);
        const int result = turn.take();
        return std::to_string(result) + turn.marks();
    });
}

TEST(Ecore, IsToldWhatItWantsToKnow)
{
    for (const int ready : {POLLIN, POLLHUP, POLLERR})
        EXPECT_EQ(told("r", ready), "1 400r") << ready;
    for (const int ready : {POLLOUT, POLLPRI})
        EXPECT_EQ(told("r", ready), "0") << ready;
    for (const int ready : {POLLOUT, POLLERR})
        EXPECT_EQ(told("w", ready), "1 400w") << ready;
    for (const int ready : {POLLIN, POLLPRI, POLLHUP})
        EXPECT_EQ(told("w", ready), "0") << ready;
    EXPECT_EQ(told("x", POLLPRI), "1 400x");
    for (const int ready : {POLLIN, POLLOUT, POLLHUP, POLLERR})
        EXPECT_EQ(told("x", ready), "0") << ready;
    EXPECT_EQ(told("rwx", POLLIN | POLLOUT | POLLPRI), "3 400rwx");
}

TEST(Ecore, IsToldOfItsOwnDescriptorsOnly)
{
    const std::string marks = inLoop([] {
        watch(kGlib, G_IO_IN, noteGlib);
        test::wait() = answers(3, {{kGlib, POLLIN}, {kEcore, POLLIN}, {kEcore + 2, POLLIN}});
        Turn turn;
        for (const int fd : {kEcore, kEcore + 1, kEcore + 2})
            FD_SET(fd, &turn.readable);
        const int result = turn.take();
        return std::to_string(result) + turn.marks();
    });
    EXPECT_EQ(marks, "2 400r 402r");
}

TEST(GLib, IsServedAfterEachWait)
{
    for (const int result : {1, 0, -1}) {
        const std::string text = inLoop([&] {
            watch(kGlib, G_IO_IN, noteGlib);
            watch(kGlib + 1, G_IO_IN, noteGlib);
            test::wait() = answers(result, {{kGlib, POLLIN}}, EINTR);
            Turn turn;
            FD_SET(kEcore, &turn.readable);
            const int given = turn.take();
            const int error = errno;
            return std::to_string(given) + turn.marks() + " error " +
                   std::to_string(error == EINTR) + ": " + joined();
        });
        EXPECT_EQ(text, std::to_string(std::min(result, 0)) +
                            " error 1: wait none: own:1 300:1 301:1 400:1; GLib 300:1");
    }
}

gboolean quitFromGlib(int, GIOCondition, void*)
{
    test::events().push_back("GLib");
    ecore_main_loop_quit();
    return G_SOURCE_CONTINUE;
}

/// A turn in which both sides are ready.
std::string lastTurn()
{
    watch(kGlib, G_IO_IN, quitFromGlib);
    Turn turn;
    FD_SET(kEcore, &turn.readable);
    FD_SET(kEcore, &turn.writable);
    FD_SET(kEcore, &turn.exceptional);
    const int result = turn.take();
    return std::to_string(result) + turn.marks() + ": " + joined();
}

TEST(TheEnd, IsNoWait)
{
    EXPECT_EQ(inLoop([] {
                  test::wait() = answers(2, {{kGlib, POLLIN}, {kEcore, POLLIN}});
                  ecore_main_loop_quit();
                  return lastTurn();
              }),
              "0: ");
}

TEST(TheEnd, DuringAWaitLeavesNothingToDispatch)
{
    EXPECT_EQ(inLoop([] {
                  test::wait() = [](std::vector<pollfd>& polled, const std::string&,
                                    const sigset_t&) {
                      ecore_main_loop_quit();
                      for (pollfd& one : polled)
                          one.revents = one.events;
                      return 2;
                  };
                  return lastTurn();
              }),
              "0: ");
}

TEST(TheEnd, ByGlibLeavesEcoreNothing)
{
    EXPECT_EQ(inLoop([] {
                  test::wait() = answers(2, {{kGlib, POLLIN}, {kEcore, POLLIN}});
                  return lastTurn();
              }),
              "0: wait none: own:1 300:1 400:7; GLib");
}

}  // namespace
