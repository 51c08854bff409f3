// task_probe.h - a task that records its events and hooks, and doubles of its threads, contexts and queue
// scheduling.
#pragma once

#include "BillingTaskBase.h"
#include "log_matchers.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

inline const LinesOf Source{"BillingTaskBase.cpp"};
inline const LinesOf Header{"BillingTaskBase.h"};

/// Failures that the doubles produce, and what they have seen.
struct TaskDoubles {
    bool bNoThread = false;
    bool bPretendThread = false;  ///< creation succeeds without a thread
    bool bNoContext = false;
    std::size_t stackSize = 0;
    std::atomic<int> drains{0};  ///< number of times that HandleEvent was scheduled
    GMainContext* pContext = nullptr;
    GMainLoop* pLoop = nullptr;
};

inline constexpr std::int32_t QUIT = 0;
inline constexpr std::int32_t HANDSHAKE = 1;
inline constexpr std::int32_t WORK = 10;  // lowest event id of the task itself

/// Notes each event and hook, and counts hooks on other threads.
class Task : public CBillingTaskBase {
public:
    bool t_OnEvent(PTEvent* e) override
    {
        const bool bHandled = e->id >= WORK ? handle(*e) : CBillingTaskBase::t_OnEvent(e);
        note(std::to_string(e->id) + (bHandled ? "" : " refused"));
        return bHandled;
    }
    bool t_Create() override
    {
        taskThread = std::this_thread::get_id();
        Eventually([this] { return !bHoldStart; });
        note("create");
        return bStarts && CBillingTaskBase::t_Create();
    }
    bool t_Destroy() override
    {
        note("destroy");
        return CBillingTaskBase::t_Destroy();
    }

    void put(std::int32_t id)
    {
        PTEvent event;
        event.id = id;
        PutEvent(&event);
    }
    void send(std::int32_t id, bool bSync)
    {
        PTEvent event;
        event.id = id;
        event.receiver = this;
        Send(&event, bSync);
    }
    /// Ends the task in the regular way.
    void end()
    {
        bHoldStart = false;
        put(QUIT);
        Destroy();
    }
    std::vector<std::string> notes()
    {
        const std::lock_guard<std::mutex> hold(m_lock);
        return m_notes;
    }

    std::function<void(PTEvent&)> onWork;
    bool bStarts = true;
    std::atomic<bool> bHoldStart{false};
    std::thread::id taskThread;
    std::atomic<int> elsewhere{0};  ///< number of hooks that ran on another thread than the task's

private:
    bool handle(PTEvent& event)
    {
        if (onWork)
            onWork(event);
        return true;
    }
    void note(const std::string& strNote)
    {
        if (std::this_thread::get_id() != taskThread)
            ++elsewhere;
        const std::lock_guard<std::mutex> hold(m_lock);
        m_notes.push_back(strNote);
    }

    std::mutex m_lock;
    std::vector<std::string> m_notes;
};

class WithTaskDoubles : public ::testing::Test {
protected:
    WithTaskDoubles();
    ~WithTaskDoubles() override;

    TaskDoubles m_doubles;
};

class AnUncreatedTask : public WithTaskDoubles {
protected:
    Task m_task;
};

class ATask : public WithTaskDoubles {
protected:
    void create() { ASSERT_TRUE(m_task.Create()); }
    /// Creates the task with its loop held, so that events stay in the queue.
    void createHeld()
    {
        m_task.bHoldStart = true;
        create();
    }
    ~ATask() override
    {
        if (m_task.FlagCreate())
            m_task.end();
        EXPECT_EQ(m_task.elsewhere, 0);
    }

    Task m_task;
};
