// held_locks.h - the mutexes that the calling thread holds, for doubles that check them. A program that uses
// this wraps pthread_mutex_lock and pthread_mutex_unlock.
#pragma once

#include <pthread.h>

#include <cstddef>

/// Number of mutexes that the program's own code holds on the calling thread.
std::size_t HeldLocks();

/// True if the calling thread holds that mutex.
bool Holds(const pthread_mutex_t& tMutex);
