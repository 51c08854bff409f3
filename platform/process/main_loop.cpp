// main_loop.cpp - Ecore's main loop, which also runs GLib's default context. SIGTERM is unblocked only
// while the main thread waits and holds no lock, since its handler does the whole teardown.
//
// These functions are linked into the executable itself: they replace the libraries' own, also with a
// sanitizer's runtime in between. Reasons: ecore_init() installs signal handlers and unblocks their
// signals before it can handle them; Ecore's loop does not run GLib, or runs it after the teardown.
#include "main_loop.h"

#include <Ecore.h>
#include <dlfcn.h>
#include <glib.h>
#include <poll.h>
#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>

// Visible to other libraries whatever the default visibility is. Not instrumented: sanitizers' runtimes
// call these functions during their own start.
#define STEPS_IN_FRONT \
    __attribute__((visibility("default"), no_sanitize("address", "thread", "undefined")))

namespace {

/// Signal mask of the wait: that of the start-up, with SIGTERM unblocked.
sigset_t g_openMask;
/// The loop was quit; nothing is dispatched from then on.
volatile sig_atomic_t g_ended;
/// ecore_init() has run; the loop can be quit.
volatile sig_atomic_t g_ready;
/// ecore_init() runs on this thread; its changes of signals are ignored.
thread_local bool g_keepSignals;

/// The library's function that this file replaces.
template <typename Function>
STEPS_IN_FRONT Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// Takes a pending SIGTERM between two steps.
void signalWindow()
{
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, &g_openMask, &before);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

/// Ecore's descriptors of one wait, as select() has them.
struct EcoreSets {
    fd_set* readable;
    fd_set* writable;
    fd_set* exceptional;

    unsigned wantedOn(int fd) const
    {
        return (FD_ISSET(fd, readable) ? POLLIN : 0U) | (FD_ISSET(fd, writable) ? POLLOUT : 0U) |
               (FD_ISSET(fd, exceptional) ? POLLPRI : 0U);
    }

    void clear() const
    {
        FD_ZERO(readable);
        FD_ZERO(writable);
        FD_ZERO(exceptional);
    }

    /// @return number of bits set
    int mark(const GPollFD& polled) const
    {
        const unsigned ready = polled.revents;
        int marks = 0;
        if ((polled.events & POLLIN) != 0 && (ready & (POLLIN | POLLHUP | POLLERR)) != 0) {
            FD_SET(polled.fd, readable);
            marks++;
        }
        if ((polled.events & POLLOUT) != 0 && (ready & (POLLOUT | POLLERR)) != 0) {
            FD_SET(polled.fd, writable);
            marks++;
        }
        if ((polled.events & POLLPRI) != 0 && (ready & POLLPRI) != 0) {
            FD_SET(polled.fd, exceptional);
            marks++;
        }
        return marks;
    }
};

/// One turn of the loop. The list of descriptors has GLib's first, then Ecore's.
class Turn {
public:
    /// @param polled reused in each turn, to keep its memory
    Turn(GMainContext* context, GArray* polled, const EcoreSets& sets)
        : m_context(context), m_polled(polled), m_sets(sets)
    {
    }

    void collect(int ecoreCount)
    {
        g_main_context_prepare(m_context, &m_priority);
        int room = static_cast<int>(m_polled->len);
        while ((m_glibCount = g_main_context_query(m_context, m_priority, &m_glibTimeout, all(),
                                                   room)) > room) {
            room = m_glibCount;
            g_array_set_size(m_polled, static_cast<guint>(room));
        }
        g_array_set_size(m_polled, static_cast<guint>(m_glibCount));
        for (int fd = 0; fd < ecoreCount; fd++) {
            const unsigned wanted = m_sets.wantedOn(fd);
            const GPollFD polled{fd, static_cast<gushort>(wanted), 0};
            if (wanted != 0)
                g_array_append_val(m_polled, polled);
        }
    }

    /// Waits with SIGTERM unblocked; its handler runs in here.
    /// @return the result of ppoll()
    int wait(const timeval* ecoreTimeout)
    {
        timespec limit{m_glibTimeout / 1000, m_glibTimeout % 1000 * 1000000L};
        bool limited = m_glibTimeout >= 0;
        if (ecoreTimeout != nullptr) {
            const timespec own{ecoreTimeout->tv_sec,
                               static_cast<long>(ecoreTimeout->tv_usec) * 1000};
            if (!limited ||
                std::pair(own.tv_sec, own.tv_nsec) < std::pair(limit.tv_sec, limit.tv_nsec))
                limit = own;
            limited = true;
        }
        static_assert(sizeof(GPollFD) == sizeof(pollfd), "GLib promises that they are the same");
        return ppoll(reinterpret_cast<pollfd*>(all()), m_polled->len, limited ? &limit : nullptr,
                     &g_openMask);
    }

    /// Tells Ecore what is ready. @return how much that is
    int markReady() const
    {
        int ready = 0;
        for (guint i = static_cast<guint>(m_glibCount); i < m_polled->len; i++)
            ready += m_sets.mark(g_array_index(m_polled, GPollFD, i));
        return ready;
    }

    void dispatchGlib() const
    {
        if (g_main_context_check(m_context, m_priority, all(), m_glibCount))
            g_main_context_dispatch(m_context);
    }

private:
    GPollFD* all() const { return reinterpret_cast<GPollFD*>(m_polled->data); }

    GMainContext* m_context;
    GArray* m_polled;
    const EcoreSets& m_sets;
    int m_priority = 0;
    int m_glibTimeout = -1;
    int m_glibCount = 0;
};

/// Replaces select() in Ecore's loop.
int waitForBoth(int count, fd_set* readable, fd_set* writable, fd_set* exceptional,
                timeval* timeout)
{
    static GArray* const polled = g_array_sized_new(FALSE, FALSE, sizeof(GPollFD), 64);
    const EcoreSets sets{readable, writable, exceptional};
    int result = 0;
    int error = 0;
    if (g_ended == 0) {
        Turn turn(g_main_context_default(), polled, sets);
        turn.collect(count);
        result = turn.wait(timeout);
        error = errno;
        sets.clear();
        if (result > 0)
            result = turn.markReady();
        if (g_ended == 0)
            turn.dispatchGlib();
    }
    // A busy loop never waits; it takes SIGTERM here.
    signalWindow();
    if (g_ended != 0) {
        sets.clear();
        return 0;
    }
    errno = error;
    return result;
}

/// Options that Ecore needs before its start.
void configureEcore()
{
    // Ecore's system modules would open a bus connection of their own.
    ecore_app_no_system_modules();
    ecore_main_loop_glib_always_integrate_disable();
}

void takeOverLoop()
{
    signal(SIGPIPE, SIG_IGN);
    ecore_main_loop_select_func_set(waitForBoth);
    g_ready = 1;
}

}  // namespace

void process::holdSignals()
{
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, &g_openMask);
    sigdelset(&g_openMask, SIGTERM);
}

void process::ownDefaultContext()
{
    // Without an owner, any thread that calls g_main_context_invoke() would run the context.
    g_main_context_acquire(nullptr);
}

extern "C" {

STEPS_IN_FRONT int sigaction(int number, const struct sigaction* action,
                             struct sigaction* previous) noexcept
{
    static auto* const real =
        next<int(int, const struct sigaction*, struct sigaction*)>("sigaction");
    return real(number, g_keepSignals ? nullptr : action, previous);
}

STEPS_IN_FRONT int pthread_sigmask(int how, const sigset_t* mask, sigset_t* previous) noexcept
{
    static auto* const real = next<int(int, const sigset_t*, sigset_t*)>("pthread_sigmask");
    return real(how, g_keepSignals ? nullptr : mask, previous);
}

STEPS_IN_FRONT int ecore_init(void)
{
    static auto* const real = next<int()>("ecore_init");
    configureEcore();
    g_keepSignals = true;
    const int count = real();
    g_keepSignals = false;
    if (count == 1)
        takeOverLoop();
    return count;
}

STEPS_IN_FRONT void ecore_main_loop_begin(void)
{
    static auto* const real = next<void()>("ecore_main_loop_begin");
    if (g_ended == 0)
        real();
    // A second SIGTERM may be pending; its handler runs here.
    signalWindow();
}

STEPS_IN_FRONT void ecore_main_loop_quit(void)
{
    static auto* const real = next<void()>("ecore_main_loop_quit");
    g_ended = 1;
    // Ecore's own function would spin for ever before ecore_init().
    if (g_ready != 0)
        real();
}

}  // extern "C"
