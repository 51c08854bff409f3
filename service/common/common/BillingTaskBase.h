// BillingTaskBase.h - the task framework: scoped locks, counting sync objects, the holder of singletons,
// a GLib main loop, threads, and event tasks that combine the last two.
#pragma once

#include "BillingLog.h"

#include <glib.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <new>
#include <vector>

/// Holds a mutex for the lifetime of a scope.
class CBillingAutoLock {
public:
    /// Locks the mutex.
    /// @param mutex outlives this object; a null one is logged and not locked
    explicit CBillingAutoLock(pthread_mutex_t* mutex) : m_pMutex(mutex)
    {
        BILLING_RETURN_IF(mutex == NULL);
        pthread_mutex_lock(mutex);
    }
    /// Unlocks, without checking for null.
    virtual ~CBillingAutoLock() { pthread_mutex_unlock(m_pMutex); }
    CBillingAutoLock(const CBillingAutoLock&) = delete;
    CBillingAutoLock& operator=(const CBillingAutoLock&) = delete;

private:
    pthread_mutex_t* m_pMutex;
};

/// A counting semaphore: each Give lets one Take pass, earlier or later. Thread: any for all functions;
/// one mutex serves all objects of the process.
class CBillingSync {
public:
    CBillingSync() = default;
    /// Logs an object that was not destroyed, and leaves its condition variable as it is.
    virtual ~CBillingSync() { BILLING_RETURN_IF(FlagCreate() != false); }
    CBillingSync(const CBillingSync&) = delete;
    CBillingSync& operator=(const CBillingSync&) = delete;

    /// @return false when it is created already
    bool Create();
    /// Discards the signals that were not taken. Precondition: no thread waits.
    void Destroy();
    /// Waits for a signal and takes it. Returns at once when not created.
    void Take();
    /// Adds a signal: wakes one waiting thread, or lets the next Take pass.
    void Give();
    /// Waits for a signal and takes it. A wake-up without a signal starts the full interval again.
    /// @param ulMs longest wait in milliseconds; 0 does not wait, 0xFFFFFFFF waits as Take does
    /// @return whether a signal was taken. 0xFFFFFFFF returns true also for an object that is not created;
    ///   any other interval returns false for it.
    bool SyncTry(unsigned long ulMs);

    bool FlagCreate() const { return m_bCreate; }

private:
    pthread_cond_t m_tCond = PTHREAD_COND_INITIALIZER;
    std::atomic<bool> m_bCreate{false};
    std::int32_t m_iCount = 0;
};

/// The single instance of a T. The lock is held only to create, read or delete it.
template <typename T>
class CBillingSingleton {
public:
    inline static T* m_pObj = nullptr;
    inline static pthread_mutex_t m_tSingletonLock = PTHREAD_MUTEX_INITIALIZER;
};

/// Returns the single T, created at the first call. The constructor runs under the lock.
/// @return null when there is no memory. Thread: any
template <typename T>
T* BillingInstance()
{
    CBillingAutoLock oLock(&CBillingSingleton<T>::m_tSingletonLock);
    if (CBillingSingleton<T>::m_pObj == nullptr) {
        CBillingSingleton<T>::m_pObj = new (std::nothrow) T();
    }
    return CBillingSingleton<T>::m_pObj;
}

/// Deletes the single T, if there is one. Thread: any. Precondition: no thread uses the instance.
template <typename T>
void BillingDeleteInstance()
{
    CBillingAutoLock oLock(&CBillingSingleton<T>::m_tSingletonLock);
    delete CBillingSingleton<T>::m_pObj;
    CBillingSingleton<T>::m_pObj = nullptr;
}

/// A GLib main loop to which other threads hand work.
///
/// The mutex is held from just before the loop runs until its first dispatch: a call in between waits
/// until the loop runs. Thread: the loop and all callbacks one; everything else any.
class CBillingMainLoop {
public:
    CBillingMainLoop() = default;
    /// Logs a loop that was not destroyed, and leaves it as it is.
    virtual ~CBillingMainLoop() { BILLING_RETURN_IF(FlagCreate() != false); }
    CBillingMainLoop(const CBillingMainLoop&) = delete;
    CBillingMainLoop& operator=(const CBillingMainLoop&) = delete;

    /// Makes the loop on GLib's default context or on a context of its own; nothing runs yet.
    /// @return false when it is created already, or GLib fails
    bool Create(bool bDefaultContext);
    /// Quits the loop and releases everything; Create may be called again.
    virtual void Destory();

    /// Runs the loop on the calling thread until Destory(). Returns at once when not created.
    void MainLoopRun();
    /// Runs func(data) once on the loop's thread; immediately when called from that thread. Does nothing
    /// when not created.
    void MainContextInvoke(GSourceFunc func, gpointer data);
    /// Calls func(data) every uiInterval milliseconds as long as it returns TRUE.
    /// @return the source, for DeleteSource(); null when not created
    GSource* AddTimeoutSource(unsigned int uiInterval, GSourceFunc func, gpointer data);
    /// Releases a source of AddTimeoutSource(); any other is ignored. The source stays active until its
    /// callback returns FALSE.
    void DeleteSource(GSource* source);

    bool FlagCreate() const { return m_bCreate; }

    /// First dispatch of the loop: releases the mutex.
    /// @param data the CBillingMainLoop
    /// @return FALSE
    static gboolean UnLock(gpointer data);

private:
    std::atomic<bool> m_bCreate{false};
    pthread_mutex_t m_tMutex = PTHREAD_MUTEX_INITIALIZER;
    GMainContext* m_pContext = nullptr;  // null: the default context
    GMainLoop* m_pLoop = nullptr;
    std::vector<GSource*> m_vecSources;  // one reference to each
    bool m_bLocked = false;              // MainLoopRun holds m_tMutex until UnLock
};

/// A thread that runs one function. Calling order: Create, t_Main is made to return, Destroy.
class CBillingThreadBase {
public:
    CBillingThreadBase() = default;
    virtual ~CBillingThreadBase() = default;
    CBillingThreadBase(const CBillingThreadBase&) = delete;
    CBillingThreadBase& operator=(const CBillingThreadBase&) = delete;

    /// Starts the thread.
    /// @param ulStackSize bytes
    /// @return false when it is created already or cannot be started
    bool Create(unsigned long ulStackSize);
    /// Waits until t_Main has returned.
    virtual void Destroy();
    /// The thread's function. Thread: the new one.
    virtual void t_Main() = 0;

    bool FlagCreate() const { return m_tSync[0].FlagCreate(); }

    /// Entry point of the thread.
    /// @param arg the object
    static void* Main(void* arg);

protected:
    pthread_t m_tThread{};
    CBillingSync m_tSync[2];  // [0] start signal, [1] end signal
};

class CBillingTaskBase;

/// Events of the base class.
enum BILLING_EVENT_ID : std::int32_t {
    BILLING_EVENT_QUIT = 0,
    BILLING_EVENT_HANDSHAKE = 1,  ///< param: a new[] array of two created CBillingSync
};

/// An event; the queue holds a copy.
struct PTEvent {
    std::int32_t id = 0;  ///< BILLING_EVENT_ID, or a number defined by a subclass
    CBillingTaskBase* receiver = nullptr;
    CBillingSync* sync = nullptr;  ///< set by Send: signalled when the event has been handled
    void* param = nullptr;         ///< ownership depends on the id
    std::uint32_t param2 = 0;
};

/// A thread that handles events one by one on a main loop of its own. Calling order: Create, events, the
/// quit event, Destroy. Thread: the virtual functions run on the task's thread; PutEvent and Send any; the
/// rest the owner's.
class CBillingTaskBase : public CBillingThreadBase {
public:
    CBillingTaskBase() = default;
    /// Logs a task that was not destroyed.
    ~CBillingTaskBase() override { BILLING_RETURN_IF(FlagCreate() == true); }

    /// Starts the task.
    /// @return false when it is created already or cannot be started
    bool Create();
    /// Waits for the thread, which the quit event ends. Discards the events behind the quit event, and
    /// releases the callers of Send that wait for them.
    void Destroy() override;
    void t_Main() override;
    /// Handles an event; a subclass hands ids that it does not know to this function.
    /// @return whether the event was handled
    virtual bool t_OnEvent(PTEvent* e);
    /// First function called on the thread.
    /// @return false ends the thread at once, without t_Destroy
    virtual bool t_Create()
    {
        BILLING_RETURN_IF(FlagCreate() != true, false);
        return true;
    }
    virtual bool t_Destroy()
    {
        BILLING_RETURN_IF(FlagCreate() != true, false);
        return true;
    }

    /// Queues a copy of *e; the caller keeps *e. The event's sync is signalled at once when the task is
    /// destroyed already.
    void PutEvent(PTEvent* e);
    /// Queues a copy of *e at e->receiver, which may be another task.
    /// @param bSync true: returns when the event was handled or discarded; immediately on the receiver's
    ///   own thread
    void Send(PTEvent* e, bool bSync);
    /// Takes the first event.
    /// @return false when the queue is empty; the next PutEvent then schedules HandleEvent again
    bool PopFrontEvent(PTEvent& e);
    /// Handles the queued events; runs on the loop.
    /// @param pUser the task
    /// @return FALSE
    static gboolean HandleEvent(void* pUser);

private:
    bool m_bIdle = true;  // HandleEvent is not scheduled; guarded by m_tEventMutex
    CBillingMainLoop m_oMainLoop;
    pthread_mutex_t m_tEventMutex = PTHREAD_MUTEX_INITIALIZER;
    std::deque<PTEvent> m_dqEvents;
    std::atomic<bool> m_bQuit{false};
};
