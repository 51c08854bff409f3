// ecore_environment.h - initialises Ecore once for tests that use its pipe, without the modules that connect
// to the machine's own bus.
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

/// Iterates the main loop until the condition holds, for some seconds at most.
template <typename Condition>
bool TurnUntil(Condition condition)
{
    const double end = ecore_time_get() + 20.0;
    while (!condition() && ecore_time_get() < end) {
        ecore_main_loop_iterate_may_block(EINA_FALSE);
    }
    return condition();
}
