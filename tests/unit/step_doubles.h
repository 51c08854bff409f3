// step_doubles.h - locks, condition variables, threads and GLib's loops as the task framework uses
// them, all on one thread: each call is a note in the timeline and does nothing else, so that the
// order of all steps can be compared. What a wait or a loop lets happen is in the test's hand.
#pragma once

#include "BillingTaskBase.h"
#include "log_matchers.h"

#include <gtest/gtest.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

struct StepDoubles {
    bool bOn = false;                       ///< off: every call goes to the real function
    std::vector<std::string> names;         ///< of the mutexes that are initialised, in that order
    std::list<std::function<int()>> waits;  ///< what happens in each wait, and its result
    std::function<void()> run;              ///< what happens while the loop runs
    int iThreadResult = 0;
    bool bNoContext = false;
    bool bNoLoop = false;
    bool bNoSource = false;
    bool bOwnThread = false;  ///< the thread that is created is the test's own
};
StepDoubles& Doubles();

class StepByStep : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// The notes since the last time, log lines of the framework among them.
    static Steps happened();
};

/// Each word of the list is a note: "lock sync; unlock sync".
Steps Did(std::initializer_list<const char*> notes);
