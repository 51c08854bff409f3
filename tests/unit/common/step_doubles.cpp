// step_doubles.cpp - the doubles. The order of the first locks tells the framework's two static mutexes
// apart.
#include "step_doubles.h"

#include <sys/time.h>

#include <cerrno>
#include <map>
#include <stdexcept>

StepDoubles& Doubles()
{
    static StepDoubles doubles;
    return doubles;
}

namespace {

std::map<const pthread_mutex_t*, std::string>& MutexNames()
{
    static std::map<const pthread_mutex_t*, std::string> names;
    return names;
}
const char* g_szUnknownMutex = "?";

std::string NameOf(const pthread_mutex_t* pMutex)
{
    return MutexNames().try_emplace(pMutex, g_szUnknownMutex).first->second;
}

int Wait(const std::string& strNote)
{
    Note(strNote);
    if (Doubles().waits.empty()) {
        ADD_FAILURE() << "nothing ends the wait";
        throw std::runtime_error("a wait without an end");
    }
    const std::function<int()> happens = Doubles().waits.front();
    Doubles().waits.pop_front();
    return happens();
}

// Objects that serve as addresses only; their content is never read.
int g_iContext;
int g_iLoop;
int g_iSources;

std::string NameOf(const GMainContext* pContext)
{
    return pContext == nullptr ? "default" : "own";
}

}  // namespace

extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t*);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    if (!Doubles().bOn)
        return __real_pthread_mutex_lock(mutex);
    Note("lock " + NameOf(mutex));
    return 0;
}
int __real_pthread_mutex_unlock(pthread_mutex_t*);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    if (!Doubles().bOn)
        return __real_pthread_mutex_unlock(mutex);
    Note("unlock " + NameOf(mutex));
    return 0;
}
int __real_pthread_mutex_init(pthread_mutex_t*, const pthread_mutexattr_t*);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
{
    if (!Doubles().bOn)
        return __real_pthread_mutex_init(mutex, attributes);
    MutexNames()[mutex] = Doubles().names.at(0);
    Doubles().names.erase(Doubles().names.begin());
    Note((attributes == nullptr ? "init " : "init otherwise ") + NameOf(mutex));
    return 0;
}
int __wrap_pthread_cond_init(pthread_cond_t*, const pthread_condattr_t* attributes)
{
    Note(attributes == nullptr ? "cond init" : "cond init otherwise");
    return 0;
}
int __wrap_pthread_cond_destroy(pthread_cond_t*)
{
    Note("cond destroy");
    return 0;
}
int __wrap_pthread_cond_signal(pthread_cond_t*)
{
    Note("signal");
    return 0;
}
int __wrap_pthread_cond_wait(pthread_cond_t*, pthread_mutex_t* mutex)
{
    return Wait("wait " + NameOf(mutex));
}
int __wrap_pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t* mutex, const timespec* at)
{
    return Wait("wait " + NameOf(mutex) + " until " + std::to_string(at->tv_sec) + " s " +
                std::to_string(at->tv_nsec) + " ns");
}
int __real_gettimeofday(timeval* tv, void* tz);
int __wrap_gettimeofday(timeval* tv, void* tz)
{
    if (!Doubles().bOn)
        return __real_gettimeofday(tv, tz);
    Note("clock");
    *tv = {1000, 250000};
    return 0;
}

int __wrap_pthread_attr_init(pthread_attr_t*)
{
    Note("attributes");
    return 0;
}
int __wrap_pthread_attr_setdetachstate(pthread_attr_t*, int state)
{
    Note(state == PTHREAD_CREATE_DETACHED ? "detached" : "joinable");
    return 0;
}
int __wrap_pthread_attr_setstacksize(pthread_attr_t*, std::size_t size)
{
    Note("stack " + std::to_string(size));
    return 0;
}
int __wrap_pthread_attr_destroy(pthread_attr_t*)
{
    Note("attributes gone");
    return 0;
}
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t*, void* (*body)(void*), void*)
{
    Note(body == CBillingThreadBase::Main ? "thread" : "thread with another body");
    *thread = Doubles().bOwnThread ? pthread_self() : pthread_t{};
    return Doubles().iThreadResult;
}

GMainContext* __wrap_g_main_context_new()
{
    Note("context");
    return Doubles().bNoContext ? nullptr : reinterpret_cast<GMainContext*>(&g_iContext);
}
GMainLoop* __wrap_g_main_loop_new(GMainContext* context, gboolean running)
{
    Note("loop on " + NameOf(context) + (running ? " running" : ""));
    return Doubles().bNoLoop ? nullptr : reinterpret_cast<GMainLoop*>(&g_iLoop);
}
void __wrap_g_main_context_invoke_full(GMainContext* context, gint priority, GSourceFunc func,
                                       gpointer, GDestroyNotify notify)
{
    Note("invoke on " + NameOf(context) + " at " + std::to_string(priority) +
         (func == CBillingMainLoop::UnLock && notify == nullptr ? " UnLock" : " something"));
}
void __wrap_g_main_context_invoke(GMainContext* context, GSourceFunc func, gpointer)
{
    Note("invoke on " + NameOf(context) +
         (func == CBillingTaskBase::HandleEvent ? " HandleEvent" : ""));
}
void __wrap_g_main_loop_run(GMainLoop*)
{
    Note("run");
    if (Doubles().run)
        Doubles().run();
}
void __wrap_g_main_loop_quit(GMainLoop*)
{
    Note("quit");
}
GSource* __wrap_g_idle_source_new()
{
    Note("idle source");
    return reinterpret_cast<GSource*>(&g_iSources);
}
GSource* __wrap_g_timeout_source_new(guint interval)
{
    Note("source every " + std::to_string(interval) + " ms");
    return Doubles().bNoSource ? nullptr
                               : reinterpret_cast<GSource*>(std::uintptr_t{0x1000} + interval);
}
void __wrap_g_source_set_priority(GSource*, gint priority)
{
    Note("priority " + std::to_string(priority));
}
void __wrap_g_source_set_callback(GSource*, GSourceFunc func, gpointer, GDestroyNotify notify)
{
    Note(std::string("callback") + (func == CBillingMainLoop::UnLock ? " UnLock" : "") +
         (notify != nullptr ? " with an end" : ""));
}
guint __wrap_g_source_attach(GSource*, GMainContext* context)
{
    Note("attach to " + NameOf(context));
    return 1;
}
void __wrap_g_source_unref(GSource* source)
{
    const auto uSource = reinterpret_cast<std::uintptr_t>(source);
    Note(source == reinterpret_cast<GSource*>(&g_iSources)
             ? "source gone"
             : "source gone " + std::to_string(uSource - 0x1000));
}
void __wrap_g_main_context_unref(GMainContext*)
{
    Note("context gone");
}
void __wrap_g_main_loop_unref(GMainLoop*)
{
    Note("loop gone");
}

}  // extern "C"

namespace {

class NoThread : public CBillingThreadBase {
public:
    void t_Main() override {}
};

}  // namespace

void StepByStep::SetUp()
{
    Doubles() = StepDoubles();
    Doubles().bOn = true;
    if (MutexNames().empty()) {
        CBillingSync oSync;
        g_szUnknownMutex = "sync";
        oSync.Create();
        oSync.Destroy();
        g_szUnknownMutex = "threads";
        NoThread oThread;
        Doubles().iThreadResult = EAGAIN;
        oThread.Create(1);
        Doubles().iThreadResult = 0;
        g_szUnknownMutex = "?";
    }
    fake::platform().reset();
}

void StepByStep::TearDown()
{
    EXPECT_TRUE(Doubles().waits.empty()) << "waits that did not come";
    Doubles() = StepDoubles();
}

Steps StepByStep::happened()
{
    Steps steps = Timeline();
    fake::platform().clearTimeline();
    return steps;
}

Steps Did(std::initializer_list<const char*> notes)
{
    Steps steps;
    for (const std::string strNotes : notes) {
        std::size_t uBegin = 0;
        while (uBegin < strNotes.size()) {
            const std::size_t uEnd = std::min(strNotes.find("; ", uBegin), strNotes.size());
            steps.push_back(Did(strNotes.substr(uBegin, uEnd - uBegin)));
            uBegin = uEnd + 2;
        }
    }
    return steps;
}
