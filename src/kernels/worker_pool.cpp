#include "kernels/worker_pool.h"

#include "platform/signal.h"

namespace noxel {

WorkerPool::~WorkerPool() {
  pthread_cond_destroy(&idle);
  pthread_cond_destroy(&wake);
  pthread_mutex_destroy(&mutex);
}

void WorkerPool::takeItems() {
  for (;;) {
    const int item = nextItem.fetch_add(1, std::memory_order_relaxed);
    if (item >= itemCount) return;
    jobWork(jobArgument, item);
  }
}

void WorkerPool::serve() {
  uint32_t seen = 0;
  Lock lock(mutex);
  for (;;) {
    while (!stopping && (!open || generation == seen)) pthread_cond_wait(&wake, &mutex);
    if (stopping) return;
    seen = generation;
    ++busyWorkers;
    pthread_mutex_unlock(&mutex);
    takeItems();
    pthread_mutex_lock(&mutex);
    if (--busyWorkers == 0) pthread_cond_signal(&idle);
  }
}

void WorkerPool::stop() {
  Lock lock(mutex);
  stopping = true;
  pthread_cond_broadcast(&wake);
}

void WorkerPool::run(int count, Work work, void* job) {
  {
    Lock lock(mutex);
    jobWork = work;
    jobArgument = job;
    itemCount = count;
    nextItem.store(0, std::memory_order_relaxed);
    ++generation;
    open = true;
    pthread_cond_broadcast(&wake);
  }
  takeItems();
  Lock lock(mutex);
  open = false;  // who has not begun by now finds nothing left to do
  while (busyWorkers > 0) pthread_cond_wait(&idle, &mutex);
}

}  // namespace noxel
