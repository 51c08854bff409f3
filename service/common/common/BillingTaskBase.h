// BillingTaskBase.h - the task framework: scoped locks, counting sync objects, the singletons'
// holder, a GLib main loop, threads, and event tasks made of the last two.
#pragma once

#include "BillingLog.h"

#include <glib.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <new>
#include <vector>

/// Holds a mutex for the life of a scope.
class CBillingAutoLock {
public:
    /// Locks. @param mutex outlives this object; a null one is logged and not locked
    explicit CBillingAutoLock(pthread_mutex_t* mutex) : m_pMutex(mutex)
    {
        BILLING_RETURN_IF(mutex == NULL);
        pthread_mutex_lock(mutex);
    }
    /// Unlocks, with no second look at the pointer.
    virtual ~CBillingAutoLock() { pthread_mutex_unlock(m_pMutex); }
    CBillingAutoLock(const CBillingAutoLock&) = delete;
    CBillingAutoLock& operator=(const CBillingAutoLock&) = delete;

private:
    pthread_mutex_t* m_pMutex;
};

/// Counts signals: each Give lets one Take pass, also when it came first. Thread: any for all of
/// it; one mutex serves all objects of the process.
class CBillingSync {
public:
    CBillingSync() = default;
    /// Logs an object that was not destroyed; its condition variable is left alone.
    virtual ~CBillingSync() { BILLING_RETURN_IF(FlagCreate() != false); }
    CBillingSync(const CBillingSync&) = delete;
    CBillingSync& operator=(const CBillingSync&) = delete;

    /// @return false when it was created before
    bool Create();
    /// Forgets the signals that nobody took. Nobody may be waiting.
    void Destroy();
    /// Waits for a signal and takes it. Returns at once when not created.
    void Take();
    /// Wakes one waiter, or lets the next one pass.
    void Give();
    /// Waits at most ulMs milliseconds; 0 asks only, 0xFFFFFFFF waits as Take does. A wake-up
    /// without a signal starts a full interval again.
    /// @return whether a signal was taken (true as well when there is nothing to wait for: not
    /// created, and 0xFFFFFFFF); false when the time is over, or when not created
    bool SyncTry(unsigned long ulMs);

    bool FlagCreate() const { return m_bCreate; }

private:
    pthread_cond_t m_tCond = PTHREAD_COND_INITIALIZER;
    std::atomic<bool> m_bCreate{false};
    std::int32_t m_iCount = 0;
};

/// The one instance of a T. Who needs it makes it, or reads it, or deletes and clears it, under the
/// lock, which is held for nothing else.
template <typename T>
class CBillingSingleton {
public:
    inline static T* m_pObj = nullptr;
    inline static pthread_mutex_t m_tSingletonLock = PTHREAD_MUTEX_INITIALIZER;
};

/// Gets the one T, making it on first use. The constructor runs under the lock.
/// @return null when there is no memory for it. Thread: any
template <typename T>
T* BillingInstance()
{
    CBillingAutoLock oLock(&CBillingSingleton<T>::m_tSingletonLock);
    if (CBillingSingleton<T>::m_pObj == nullptr) {
        CBillingSingleton<T>::m_pObj = new (std::nothrow) T();
    }
    return CBillingSingleton<T>::m_pObj;
}

/// Deletes the one T, where there is one. Thread: any, when nobody uses the instance any more
template <typename T>
void BillingDeleteInstance()
{
    CBillingAutoLock oLock(&CBillingSingleton<T>::m_tSingletonLock);
    delete CBillingSingleton<T>::m_pObj;
    CBillingSingleton<T>::m_pObj = nullptr;
}

/// A GLib main loop that other threads may hand work to.
///
/// The mutex is held from the moment the loop is about to run until it dispatches, so whoever calls
/// in between waits for a loop that runs. Thread: one runs the loop and all callbacks; everything
/// else any.
class CBillingMainLoop {
public:
    CBillingMainLoop() = default;
    /// Logs a loop that was not destroyed; it is left alone.
    virtual ~CBillingMainLoop() { BILLING_RETURN_IF(FlagCreate() != false); }
    CBillingMainLoop(const CBillingMainLoop&) = delete;
    CBillingMainLoop& operator=(const CBillingMainLoop&) = delete;

    /// Makes the loop, on GLib's default context or on one of its own; nothing runs yet.
    /// @return false when it was created before, or GLib has none to give
    bool Create(bool bDefaultContext);
    /// Quits the loop and lets go of everything; Create may follow.
    virtual void Destory();

    /// Runs the loop on the calling thread until Destory(). Returns at once when not created.
    void MainLoopRun();
    /// Runs func(data) once on the loop's thread: at once for a caller that is this thread. Nothing
    /// happens when not created.
    void MainContextInvoke(GSourceFunc func, gpointer data);
    /// Calls func(data) every uiInterval milliseconds for as long as it returns TRUE.
    /// @return the source, for DeleteSource(); null when not created
    GSource* AddTimeoutSource(unsigned int uiInterval, GSourceFunc func, gpointer data);
    /// Lets go of a source; one that was not added here is ignored. It keeps firing until its
    /// callback returns FALSE.
    void DeleteSource(GSource* source);

    bool FlagCreate() const { return m_bCreate; }

    /// The loop's first dispatch: ends the start-up. @param data the wrapper. @return FALSE
    static gboolean UnLock(gpointer data);

private:
    std::atomic<bool> m_bCreate{false};
    pthread_mutex_t m_tMutex = PTHREAD_MUTEX_INITIALIZER;
    GMainContext* m_pContext = nullptr;  // null: the default one
    GMainLoop* m_pLoop = nullptr;
    std::vector<GSource*> m_vecSources;  // holds one reference to each
    bool m_bLocked = false;              // MainLoopRun holds m_tMutex until UnLock
};

/// A thread that runs one body. Order of calls: Create, the body is made to return, Destroy.
class CBillingThreadBase {
public:
    CBillingThreadBase() = default;
    virtual ~CBillingThreadBase() = default;
    CBillingThreadBase(const CBillingThreadBase&) = delete;
    CBillingThreadBase& operator=(const CBillingThreadBase&) = delete;

    /// Starts the thread. @return false when it was created before or cannot be started
    bool Create(unsigned long ulStackSize);
    /// Waits until the body has returned.
    virtual void Destroy();
    /// The body. Thread: the new one.
    virtual void t_Main() = 0;

    bool FlagCreate() const { return m_tSync[0].FlagCreate(); }

    /// The thread's entry. @param arg the object
    static void* Main(void* arg);

protected:
    pthread_t m_tThread{};
    CBillingSync m_tSync[2];  // the start gate, the end signal
};

class CBillingTaskBase;

/// What an event asks for, in the base class.
enum BILLING_EVENT_ID : std::int32_t {
    BILLING_EVENT_QUIT = 0,
    BILLING_EVENT_HANDSHAKE = 1,  ///< param: a new[] array of two CBillingSync, both created
};

/// One event; the queue holds a copy.
struct PTEvent {
    std::int32_t id = 0;  ///< BILLING_EVENT_ID, or a number of a subclass's own
    CBillingTaskBase* receiver = nullptr;
    CBillingSync* sync = nullptr;  ///< filled by Send: given when the event has been handled
    void* param = nullptr;         ///< owned as the id says
    std::uint32_t param2 = 0;
};

/// A thread that handles events, one after the other, on a main loop of its own. Order of calls:
/// Create, events, the quit event, Destroy. Thread: the hooks run on the task's own thread;
/// PutEvent and Send any; the rest the owner's.
class CBillingTaskBase : public CBillingThreadBase {
public:
    CBillingTaskBase() = default;
    /// Logs a task that was not destroyed.
    ~CBillingTaskBase() override { BILLING_RETURN_IF(FlagCreate() == true); }

    /// Starts the task. @return false when it was created before or cannot be started
    bool Create();
    /// Waits for the end of the thread, which the quit event brings, and discards the events that
    /// came behind it; who waits for one of them in Send is released.
    void Destroy() override;
    void t_Main() override;
    /// Handles an event; a subclass passes the ids that are not its own on to here.
    /// @return whether it was handled
    virtual bool t_OnEvent(PTEvent* e);
    /// Called first and last on the thread. @return false from t_Create ends the thread at once,
    /// without t_Destroy
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

    /// Queues a copy of *e. The caller keeps *e. With a sync, and nobody to handle it any more, it is
    /// given at once.
    void PutEvent(PTEvent* e);
    /// Queues a copy of *e at e->receiver, which may be another task. bSync: returns when it has
    /// been handled, or discarded; from the receiver's own thread, at once.
    void Send(PTEvent* e, bool bSync);
    /// Takes the first event. @return false when there is none; the next PutEvent then schedules
    /// HandleEvent again
    bool PopFrontEvent(PTEvent& e);
    /// Handles what is queued; scheduled on the loop. @param pUser the task. @return FALSE
    static gboolean HandleEvent(void* pUser);

private:
    bool m_bIdle = true;  // no HandleEvent is scheduled; guarded by m_tEventMutex
    CBillingMainLoop m_oMainLoop;
    pthread_mutex_t m_tEventMutex = PTHREAD_MUTEX_INITIALIZER;
    std::deque<PTEvent> m_dqEvents;
    std::atomic<bool> m_bQuit{false};
};
