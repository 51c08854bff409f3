// held_locks.h - the mutexes that the calling thread holds, for doubles that check them. A program that uses
// this wraps pthread_mutex_lock and pthread_mutex_unlock.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <functional>

/// Number of mutexes that the program's own code holds on the calling thread.
std::size_t HeldLocks();

/// True if the calling thread holds that mutex.
bool Holds(const pthread_mutex_t& tMutex);

/// How many times the calling thread has locked that mutex.
std::size_t TimesLocked(const pthread_mutex_t& tMutex);

/// Runs the action before the n-th lock from now on that this thread takes, 1 for the next one. Once.
void BeforeLock(int n, std::function<void()> action);
