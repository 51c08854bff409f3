// held_locks.h - which mutexes the calling thread holds: doubles look before they answer. A program
// that asks wraps pthread_mutex_lock and pthread_mutex_unlock.
#pragma once

#include <pthread.h>

#include <cstddef>

/// How many mutexes the calling thread has locked and not unlocked, by this program's own code.
std::size_t HeldLocks();

/// Whether that one is among them.
bool Holds(const pthread_mutex_t& tMutex);
