// held_locks.cpp - replaces the lock and unlock functions and counts each thread's held mutexes.
#include "held_locks.h"

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

namespace {
thread_local std::vector<const pthread_mutex_t*> t_held;
thread_local std::map<const pthread_mutex_t*, std::size_t> t_taken;
thread_local int t_iLocksUntil = 0;
thread_local std::function<void()> t_action;
}  // namespace

extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    if (t_iLocksUntil > 0 && --t_iLocksUntil == 0) {
        std::exchange(t_action, nullptr)();
    }
    const int iResult = __real_pthread_mutex_lock(mutex);
    t_held.push_back(mutex);
    ++t_taken[mutex];
    return iResult;
}
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    const auto it = std::find(t_held.begin(), t_held.end(), mutex);
    if (it != t_held.end()) {
        t_held.erase(it);
    }
    return __real_pthread_mutex_unlock(mutex);
}
}

std::size_t HeldLocks()
{
    return t_held.size();
}

void BeforeLock(int n, std::function<void()> action)
{
    t_iLocksUntil = n;
    t_action = std::move(action);
}

bool Holds(const pthread_mutex_t& tMutex)
{
    return std::find(t_held.begin(), t_held.end(), &tMutex) != t_held.end();
}

std::size_t TimesLocked(const pthread_mutex_t& tMutex)
{
    return t_taken[&tMutex];
}
