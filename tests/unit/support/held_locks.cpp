// held_locks.cpp - replaces the lock and unlock functions and counts each thread's held mutexes.
#include "held_locks.h"

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

namespace {
thread_local bool t_bEnded = false;

/// What is known of a thread. GoogleMock locks a mutex when this is gone, at the end of the program.
struct ThreadLocks {
    ThreadLocks() = default;
    ~ThreadLocks() { t_bEnded = true; }
    ThreadLocks(const ThreadLocks&) = delete;
    ThreadLocks& operator=(const ThreadLocks&) = delete;

    std::vector<const pthread_mutex_t*> held;
    std::map<const pthread_mutex_t*, std::size_t> taken;
    int iLocksUntil = 0;
    std::function<void()> action;
};
thread_local ThreadLocks t_locks;
}  // namespace

extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    if (t_bEnded) {
        return __real_pthread_mutex_lock(mutex);
    }
    if (t_locks.iLocksUntil > 0 && --t_locks.iLocksUntil == 0) {
        std::exchange(t_locks.action, nullptr)();
    }
    const int iResult = __real_pthread_mutex_lock(mutex);
    t_locks.held.push_back(mutex);
    ++t_locks.taken[mutex];
    return iResult;
}
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    if (!t_bEnded) {
        auto& held = t_locks.held;
        const auto it = std::find(held.begin(), held.end(), mutex);
        if (it != held.end()) {
            held.erase(it);
        }
    }
    return __real_pthread_mutex_unlock(mutex);
}
}

std::size_t HeldLocks()
{
    return t_locks.held.size();
}

void BeforeLock(int n, std::function<void()> action)
{
    t_locks.iLocksUntil = n;
    t_locks.action = std::move(action);
}

bool Holds(const pthread_mutex_t& tMutex)
{
    return std::find(t_locks.held.begin(), t_locks.held.end(), &tMutex) != t_locks.held.end();
}

std::size_t TimesLocked(const pthread_mutex_t& tMutex)
{
    return t_locks.taken[&tMutex];
}
