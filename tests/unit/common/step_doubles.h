// step_doubles.h - doubles of locks, condition variables, threads and GLib's loops for the task framework,
// all on one thread. Each call is only a note in the timeline, so that a test can compare the order of all
// steps. The test sets what happens during a wait or a loop.
#pragma once

#include "BillingTaskBase.h"
#include "log_matchers.h"

#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

struct StepDoubles {
    bool bOn = false;                       ///< false: every call goes to the real function
    std::vector<std::string> names;         ///< of mutexes in order of initialisation
    std::list<std::function<int()>> waits;  ///< action in each wait, returns its result
    std::function<void()> run;              ///< action while the loop runs
    int iThreadResult = 0;
    bool bNoContext = false;
    bool bNoLoop = false;
    bool bNoSource = false;
    bool bOwnThread = false;  ///< the new thread has the id of the test's thread
};
StepDoubles& Doubles();

class StepByStep : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// The notes since the last call, with the log lines of the framework.
    static Steps happened();
};

/// Notes from a list with ";" between them, for example "lock sync; unlock sync".
Steps Did(std::initializer_list<const char*> notes);
