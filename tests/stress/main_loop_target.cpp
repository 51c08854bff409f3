// main_loop_target.cpp - a process that has everything a SIGTERM handler can trip over, and a
// handler that does a whole teardown. Driven by main_loop_torture.py, which sends the signals.
//
// usage: main_loop_target idle|busy
//   idle  sleeps in the loop    busy  never sleeps; a second thread writes the pipe
// Prints "ready" when the loop is about to begin, and at the end how often the handler ran and what
// was dispatched, before and after the end of the loop.
#include <platform/process.h>

#include <Ecore.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::mutex g_lock;  // held in every dispatch: a handler that came there would wait for ever
std::vector<std::string>* g_texts;
Ecore_Pipe* g_pipe;
std::thread* g_writer;
std::mutex g_pipeLock;
std::atomic<bool> g_stopWriter{false};
std::atomic<bool> g_torn{false};
int g_handled;
long g_dispatched;
long g_late;

void work()
{
    if (g_torn)
        g_late++;
    const std::lock_guard<std::mutex> hold(g_lock);
    g_dispatched++;
    if (g_texts->size() > 200)
        g_texts->clear();
    g_texts->push_back(std::string(static_cast<std::size_t>(g_dispatched % 500) + 20, 'x'));
}

gboolean onGlib(void*)
{
    work();
    return G_SOURCE_CONTINUE;
}

Eina_Bool onEcore(void*)
{
    work();
    return ECORE_CALLBACK_RENEW;
}

void onPipe(void*, void*, unsigned)
{
    work();
}

void writePipe()
{
    while (!g_stopWriter) {
        {
            const std::lock_guard<std::mutex> hold(g_pipeLock);
            if (g_pipe != nullptr)
                ecore_pipe_write(g_pipe, &g_pipe, sizeof g_pipe);
        }
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
    fprintf(stderr, "signal %d\n", g_handled);
    if (!g_torn)
        tearDown();
    ecore_main_loop_quit();
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
    if (ecore_init() != 1)
        return 2;
    if (argc > 1 && strcmp(argv[1], "busy") == 0)
        makeBusy();
    puts("ready");
    fflush(stdout);
    ecore_main_loop_begin();
    ecore_main_loop_quit();
    printf("handled %d dispatched %ld late %ld\n", g_handled, g_dispatched, g_late);
    delete g_texts;
    return 0;
}
