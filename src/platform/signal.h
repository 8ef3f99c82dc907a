// Hand-off between threads: a flag, a mutex and a condition variable.
#pragma once

#include <pthread.h>

namespace noxel {

// Raise: lock, flag = 1, wake, unlock. Wait: lock, until the flag is 1, flag = 0, unlock. Whatever was written before a
// raise is visible after the wait that consumed it. The mutex is innermost: no other lock is taken while it is held.
struct _KRSignal {
  int flag = 0;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;

  void raise(int value = 1) {
    pthread_mutex_lock(&mutex);
    flag = value;
    pthread_cond_broadcast(&condition);
    pthread_mutex_unlock(&mutex);
  }

  void wait() {
    pthread_mutex_lock(&mutex);
    while (flag != 1) pthread_cond_wait(&condition, &mutex);
    flag = 0;
    pthread_mutex_unlock(&mutex);
  }

  // Wakes whoever waits on a predicate that a word outside the flag is part of.
  void wake() {
    pthread_mutex_lock(&mutex);
    pthread_cond_broadcast(&condition);
    pthread_mutex_unlock(&mutex);
  }

  // After the last user is gone.
  void destroy() {
    pthread_cond_destroy(&condition);
    pthread_mutex_destroy(&mutex);
  }
};

// Holds a mutex for a scope. pthread_mutex_t rather than std::mutex: the process-wide locks are handed on by address.
class Lock {
 public:
  explicit Lock(pthread_mutex_t& mutex) : mutex_(&mutex) { pthread_mutex_lock(mutex_); }
  ~Lock() { pthread_mutex_unlock(mutex_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

}  // namespace noxel
