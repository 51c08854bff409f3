// task_probe.cpp - the doubles.
#include "task_probe.h"

#include <cerrno>

namespace {
TaskDoubles* g_pDoubles = nullptr;
}

extern "C" {

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                          void* arg);
GMainContext* __real_g_main_context_new();
GMainLoop* __real_g_main_loop_new(GMainContext* context, gboolean running);
void __real_g_main_context_invoke(GMainContext* context, GSourceFunc func, gpointer data);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                          void* arg)
{
    pthread_attr_getstacksize(attr, &g_pDoubles->stackSize);
    if (g_pDoubles->bNoThread)
        return EAGAIN;
    return g_pDoubles->bPretendThread ? 0 : __real_pthread_create(thread, attr, body, arg);
}

GMainContext* __wrap_g_main_context_new()
{
    return g_pDoubles->pContext = g_pDoubles->bNoContext ? nullptr : __real_g_main_context_new();
}

GMainLoop* __wrap_g_main_loop_new(GMainContext* context, gboolean running)
{
    return g_pDoubles->pLoop = __real_g_main_loop_new(context, running);
}

void __wrap_g_main_context_invoke(GMainContext* context, GSourceFunc func, gpointer data)
{
    if (func == &CBillingTaskBase::HandleEvent)
        ++g_pDoubles->drains;
    __real_g_main_context_invoke(context, func, data);
}

}  // extern "C"

WithTaskDoubles::WithTaskDoubles()
{
    fake::platform().reset();
    g_pDoubles = &m_doubles;
}

WithTaskDoubles::~WithTaskDoubles()
{
    g_pDoubles = nullptr;
}
