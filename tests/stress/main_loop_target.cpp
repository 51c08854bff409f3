// main_loop_target.cpp - a process in which a SIGTERM handler could fail in many ways, with a handler that
// does a whole teardown. main_loop_torture.py starts it and sends the signals.
//
// usage: main_loop_target idle|busy|again
//   idle   sleeps in the loop
//   busy   never sleeps, and a second thread writes to the pipe
//   again  like idle, and a second SIGTERM comes while the first one is handled
// Prints "ready" when the loop is about to begin (busy: when both Ecore and GLib have dispatched an event).
// At the end it prints how often the handler ran and the number of dispatched events, before and after the
// end of the loop. SIGALRM ends it after a minute.
#include <platform/log.h>
#include <platform/process.h>

#include <Ecore.h>
#include <glib-unix.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::mutex g_lock;  // held in every dispatch: a handler inside a dispatch would deadlock
std::vector<std::string>* g_texts;
Ecore_Pipe* g_pipe;
std::thread* g_writer;
std::mutex g_pipeLock;
std::atomic<bool> g_stopWriter{false};
std::atomic<bool> g_torn{false};
bool g_again;
int g_handled;
long g_dispatchedByGlib;
long g_dispatchedByEcore;
long g_late;

/// Writes to the log; the handler calls it as well.
void note(const char* what, long number)
{
    __dlog_print(DLOG_INFO, "TARGET", "%s: %s(%d) > CountryCode:[%s] %ld", "target.cpp", what, 1,
                 "x", number);
}

void sayReady()
{
    puts("ready");
    fflush(stdout);
}

void work(long& count)
{
    if (g_torn)
        g_late++;
    note("dispatched", count);
    const std::lock_guard<std::mutex> hold(g_lock);
    if (count++ == 0 && g_dispatchedByGlib > 0 && g_dispatchedByEcore > 0)
        sayReady();
    if (g_texts->size() > 200)
        g_texts->clear();
    g_texts->push_back(std::string(static_cast<std::size_t>(count % 500) + 20, 'x'));
}

gboolean onGlib(void*)
{
    work(g_dispatchedByGlib);
    return G_SOURCE_CONTINUE;
}

gboolean onReadable(int, GIOCondition, void*)
{
    work(g_dispatchedByGlib);
    return G_SOURCE_CONTINUE;
}

Eina_Bool onEcore(void*)
{
    work(g_dispatchedByEcore);
    return ECORE_CALLBACK_RENEW;
}

void onPipe(void*, void*, unsigned)
{
    work(g_dispatchedByEcore);
}

void writePipe()
{
    while (!g_stopWriter) {
        {
            const std::lock_guard<std::mutex> hold(g_pipeLock);
            if (g_pipe != nullptr)
                ecore_pipe_write(g_pipe, &g_pipe, sizeof g_pipe);
        }
        note("written", 0);
        usleep(200);
    }
}

void tearDown()
{
    {
        const std::lock_guard<std::mutex> hold(g_pipeLock);
        if (g_pipe != nullptr)
            ecore_pipe_del(g_pipe);
        g_pipe = nullptr;
    }
    g_stopWriter = true;
    if (g_writer != nullptr) {
        g_writer->join();
        delete g_writer;
        g_writer = nullptr;
    }
    const std::lock_guard<std::mutex> hold(g_lock);
    g_texts->clear();
    g_torn = true;
}

void onTerm(int)
{
    g_handled++;
    note("signal", g_handled);
    if (g_again && g_handled == 1)
        kill(getpid(), SIGTERM);
    if (!g_torn)
        tearDown();
    ecore_main_loop_quit();
}

/// Adds a descriptor that is always readable, so that a signal never ends the wait.
bool keepReadable()
{
    int ends[2];
    if (pipe(ends) != 0 || write(ends[1], "x", 1) != 1)
        return false;
    g_unix_fd_add(ends[0], G_IO_IN, onReadable, nullptr);
    return true;
}

void makeBusy()
{
    g_idle_add(onGlib, nullptr);
    g_timeout_add(1, onGlib, nullptr);
    ecore_idler_add(onEcore, nullptr);
    ecore_timer_add(0.001, onEcore, nullptr);
    g_pipe = ecore_pipe_add(onPipe, nullptr);
    g_writer = new std::thread(writePipe);
}

}  // namespace

int main(int argc, char** argv)
{
    platform_process_start();
    signal(SIGTERM, onTerm);
    umask(0);
    if (chdir("/") != 0)
        return 2;
    g_texts = new std::vector<std::string>;
    alarm(60);
    if (ecore_init() != 1)
        return 2;
    const std::string mode = argc > 1 ? argv[1] : "idle";
    const bool busy = mode == "busy";
    g_again = mode == "again";
    if (busy && !keepReadable())
        return 2;
    if (busy)
        makeBusy();
    else
        sayReady();
    ecore_main_loop_begin();
    ecore_main_loop_quit();
    printf("handled %d dispatched %ld + %ld late %ld\n", g_handled, g_dispatchedByGlib,
           g_dispatchedByEcore, g_late);
    delete g_texts;
    return 0;
}
