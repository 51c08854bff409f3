// BillingTaskBase.cpp - sync objects, the main loop, threads and event tasks. The hand-over between
// threads depends on each lock and on the order of the steps.
#include "BillingTaskBase.h"

#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <memory>

namespace {

/// Guards all CBillingSync objects of the process.
pthread_mutex_t g_tSyncLock = PTHREAD_MUTEX_INITIALIZER;
/// Allows the creation of one thread at a time.
pthread_mutex_t g_tThreadLock = PTHREAD_MUTEX_INITIALIZER;

constexpr unsigned long WAIT_FOREVER = 0xFFFFFFFF;
constexpr unsigned long TASK_STACK_SIZE = 0x20000;
constexpr unsigned long HANDSHAKE_MS = 1000;

/// @return the wall-clock time in ulMs milliseconds. tv_nsec may be a whole second: the timed wait refuses
///   it, and its loop computes the time again. tv_usec is wider than a long where 32 bits count time in 64.
timespec DeadlineIn(unsigned long ulMs)
{
    timeval tNow{};
    gettimeofday(&tNow, nullptr);
    timespec tDeadline{};
    tDeadline.tv_sec = tNow.tv_sec + static_cast<time_t>(ulMs / 1000);
    long lMicroseconds = static_cast<long>(tNow.tv_usec) + static_cast<long>(ulMs % 1000) * 1000;
    while (lMicroseconds > 1000000) {
        lMicroseconds -= 1000000;
        ++tDeadline.tv_sec;
    }
    tDeadline.tv_nsec = lMicroseconds * 1000;
    return tDeadline;
}

}  // namespace

bool CBillingSync::Create()
{
    const CBillingAutoLock oLock(&g_tSyncLock);
    BILLING_RETURN_IF(FlagCreate(), false);
    pthread_cond_init(&m_tCond, nullptr);
    m_bCreate = true;
    return true;
}

void CBillingSync::Destroy()
{
    const CBillingAutoLock oLock(&g_tSyncLock);
    BILLING_RETURN_IF(!FlagCreate());
    pthread_cond_destroy(&m_tCond);
    m_bCreate = false;
    m_iCount = 0;
}

void CBillingSync::Take()
{
    const CBillingAutoLock oLock(&g_tSyncLock);
    if (!FlagCreate())
        return;
    while (m_iCount < 1)
        pthread_cond_wait(&m_tCond, &g_tSyncLock);
    --m_iCount;
}

void CBillingSync::Give()
{
    const CBillingAutoLock oLock(&g_tSyncLock);
    BILLING_RETURN_IF(!FlagCreate());
    ++m_iCount;
    // Signalled under the lock: the woken thread may delete this object as soon as the lock is free.
    pthread_cond_signal(&m_tCond);
}

bool CBillingSync::SyncTry(unsigned long ulMs)
{
    if (ulMs == WAIT_FOREVER) {
        Take();
        return true;
    }
    const CBillingAutoLock oLock(&g_tSyncLock);
    BILLING_RETURN_IF(FlagCreate() != true, false);
    if (ulMs == 0 && m_iCount < 1)
        return false;
    int iResult = 0;
    while (m_iCount < 1 && iResult != ETIMEDOUT) {
        const timespec tDeadline = DeadlineIn(ulMs);
        iResult = pthread_cond_timedwait(&m_tCond, &g_tSyncLock, &tDeadline);
    }
    if (iResult == ETIMEDOUT)
        return false;
    --m_iCount;
    return true;
}

bool CBillingMainLoop::Create(bool bDefaultContext)
{
    BILLING_RETURN_IF(FlagCreate() != false, false);
    m_vecSources.clear();
    pthread_mutex_init(&m_tMutex, nullptr);
    m_pContext = nullptr;
    if (!bDefaultContext) {
        m_pContext = g_main_context_new();
        if (m_pContext == nullptr)
            return false;
        // The first source that the loop dispatches.
        g_main_context_invoke_full(m_pContext, G_PRIORITY_HIGH, UnLock, this, nullptr);
    }
    m_pLoop = g_main_loop_new(m_pContext, FALSE);
    if (m_pLoop == nullptr) {
        g_clear_pointer(&m_pContext, g_main_context_unref);
        return false;
    }
    m_bCreate = true;
    return true;
}

void CBillingMainLoop::MainLoopRun()
{
    pthread_mutex_lock(&m_tMutex);
    if (!FlagCreate()) {
        pthread_mutex_unlock(&m_tMutex);
        return;
    }
    m_bLocked = true;
    if (m_pContext == nullptr) {
        // Attached, not invoked: this thread may own the default context, and g_main_context_invoke would
        // then call UnLock at once, so that Destory() could run before the loop does.
        GSource* const pSource = g_idle_source_new();
        g_source_set_priority(pSource, G_PRIORITY_HIGH);
        g_source_set_callback(pSource, UnLock, this, nullptr);
        g_source_attach(pSource, nullptr);
        g_source_unref(pSource);
    }
    g_main_loop_run(m_pLoop);
}

gboolean CBillingMainLoop::UnLock(gpointer data)
{
    auto* const pMainLoop = static_cast<CBillingMainLoop*>(data);
    if (pMainLoop->m_bLocked) {
        pMainLoop->m_bLocked = false;
        pthread_mutex_unlock(&pMainLoop->m_tMutex);
    }
    return FALSE;
}

void CBillingMainLoop::MainContextInvoke(GSourceFunc func, gpointer data)
{
    const CBillingAutoLock oLock(&m_tMutex);
    if (FlagCreate())
        g_main_context_invoke(m_pContext, func, data);
}

GSource* CBillingMainLoop::AddTimeoutSource(unsigned int uiInterval, GSourceFunc func,
                                            gpointer data)
{
    const CBillingAutoLock oLock(&m_tMutex);
    if (!FlagCreate())
        return nullptr;
    GSource* const pSource = g_timeout_source_new(uiInterval);
    if (pSource == nullptr)
        return nullptr;
    g_source_set_callback(pSource, func, data, nullptr);
    g_source_attach(pSource, m_pContext);
    m_vecSources.push_back(pSource);
    return pSource;
}

void CBillingMainLoop::DeleteSource(GSource* source)
{
    const CBillingAutoLock oLock(&m_tMutex);
    const auto itSource = std::find(m_vecSources.begin(), m_vecSources.end(), source);
    if (itSource == m_vecSources.end())
        return;
    g_source_unref(source);
    m_vecSources.erase(itSource);
}

void CBillingMainLoop::Destory()
{
    const CBillingAutoLock oLock(&m_tMutex);
    BILLING_RETURN_IF(FlagCreate() != true);
    g_main_loop_quit(m_pLoop);
    for (GSource* const pSource : m_vecSources)
        g_source_unref(pSource);
    m_vecSources.clear();
    g_clear_pointer(&m_pContext, g_main_context_unref);
    g_clear_pointer(&m_pLoop, g_main_loop_unref);
    m_bCreate = false;
}

bool CBillingThreadBase::Create(unsigned long ulStackSize)
{
    BILLING_RETURN_IF(FlagCreate(), false);
    const CBillingAutoLock oLock(&g_tThreadLock);
    for (CBillingSync& oSync : m_tSync)
        oSync.Create();
    pthread_attr_t tAttributes;
    pthread_attr_init(&tAttributes);
    pthread_attr_setdetachstate(&tAttributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&tAttributes, ulStackSize);
    const int iResult = pthread_create(&m_tThread, &tAttributes, Main, this);
    pthread_attr_destroy(&tAttributes);
    if (iResult != 0) {
        for (CBillingSync& oSync : m_tSync)
            oSync.Destroy();
        return false;
    }
    m_tSync[0].Give();
    return true;
}

void* CBillingThreadBase::Main(void* arg)
{
    auto* const pThread = static_cast<CBillingThreadBase*>(arg);
    pThread->m_tSync[0].Take();
    pThread->t_Main();
    // The last access to the object: from here on its owner may delete it.
    pThread->m_tSync[1].Give();
    return nullptr;
}

void CBillingThreadBase::Destroy()
{
    BILLING_RETURN_IF(FlagCreate() != true);
    m_tSync[1].Take();
    for (CBillingSync& oSync : m_tSync)
        oSync.Destroy();
}

bool CBillingTaskBase::Create()
{
    BILLING_RETURN_IF(FlagCreate(), false);
    pthread_mutex_init(&m_tEventMutex, nullptr);
    if (!m_oMainLoop.Create(false))
        return false;
    // Reset before the thread exists: its first event may be the quit event.
    m_bQuit = false;
    if (CBillingThreadBase::Create(TASK_STACK_SIZE))
        return true;
    m_oMainLoop.Destory();
    return false;
}

void CBillingTaskBase::t_Main()
{
    if (!t_Create()) {
        m_oMainLoop.Destory();
        return;
    }
    m_oMainLoop.MainLoopRun();
    t_Destroy();
}

void CBillingTaskBase::PutEvent(PTEvent* e)
{
    const CBillingAutoLock oLock(&m_tEventMutex);
    if (e->sync != nullptr && !FlagCreate()) {
        // Destroy() has emptied the queue already: nothing else would ever signal this sync.
        e->sync->Give();
        return;
    }
    m_dqEvents.push_back(*e);
    if (m_bIdle) {
        m_oMainLoop.MainContextInvoke(HandleEvent, this);
        m_bIdle = false;
    }
}

void CBillingTaskBase::Send(PTEvent* e, bool bSync)
{
    BILLING_RETURN_IF(e->receiver == NULL || !(e->receiver->FlagCreate()));
    CBillingTaskBase* const pReceiver = e->receiver;
    if (!bSync || pthread_equal(pthread_self(), pReceiver->m_tThread) != 0) {
        e->sync = nullptr;
        pReceiver->PutEvent(e);
        return;
    }
    const auto pSync = std::make_unique<CBillingSync>();
    pSync->Create();
    e->sync = pSync.get();
    pReceiver->PutEvent(e);
    pSync->Take();
    pSync->Destroy();
}

bool CBillingTaskBase::PopFrontEvent(PTEvent& e)
{
    const CBillingAutoLock oLock(&m_tEventMutex);
    if (m_dqEvents.empty()) {
        // Set under the lock of the test: the next PutEvent schedules HandleEvent again.
        m_bIdle = true;
        return false;
    }
    e = m_dqEvents.front();
    m_dqEvents.pop_front();
    return true;
}

gboolean CBillingTaskBase::HandleEvent(void* pUser)
{
    auto* const pTaskBase = static_cast<CBillingTaskBase*>(pUser);
    BILLING_RETURN_IF(!pTaskBase->FlagCreate(), FALSE);
    PTEvent tEvent;
    while (pTaskBase->PopFrontEvent(tEvent)) {
        pTaskBase->t_OnEvent(&tEvent);
        if (tEvent.sync != nullptr)
            tEvent.sync->Give();
        if (pTaskBase->m_bQuit)
            break;
    }
    return FALSE;
}

bool CBillingTaskBase::t_OnEvent(PTEvent* e)
{
    BILLING_RETURN_IF(!FlagCreate(), false);
    if (e->id == BILLING_EVENT_QUIT) {
        m_oMainLoop.Destory();
        m_bQuit = true;
        return true;
    }
    if (e->id != BILLING_EVENT_HANDSHAKE)
        return false;
    auto* const pSyncs = static_cast<CBillingSync*>(e->param);
    pSyncs[0].Give();
    const bool ret = pSyncs[1].SyncTry(HANDSHAKE_MS);
    // Not answered in time: the other side still uses the array, and becomes its owner.
    BILLING_RETURN_IF(!ret, false);
    pSyncs[0].Destroy();
    pSyncs[1].Destroy();
    delete[] pSyncs;
    return true;
}

void CBillingTaskBase::Destroy()
{
    BILLING_RETURN_IF(FlagCreate() != true);
    CBillingThreadBase::Destroy();
    const CBillingAutoLock oLock(&m_tEventMutex);
    for (const PTEvent& tEvent : m_dqEvents) {
        if (tEvent.sync != nullptr)
            tEvent.sync->Give();
    }
    m_dqEvents.clear();
    m_bIdle = true;
}
