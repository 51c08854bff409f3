// ecore_environment.h - Ecore for the tests of code that uses its pipe: initialised once, without
// the modules that talk to the machine's own bus.
#pragma once

#include <Ecore.h>
#include <gtest/gtest.h>

#include <cstdlib>

class EcoreEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        setenv("XDG_RUNTIME_DIR", "/tmp", 0);
        ecore_app_no_system_modules();
        ASSERT_GT(ecore_init(), 0);
    }
    void TearDown() override { ecore_shutdown(); }
};

/// Turns the main loop until the condition holds, some seconds at most.
template <typename Condition>
bool TurnUntil(Condition condition)
{
    const double end = ecore_time_get() + 20.0;
    while (!condition() && ecore_time_get() < end) {
        ecore_main_loop_iterate_may_block(EINA_FALSE);
    }
    return condition();
}
