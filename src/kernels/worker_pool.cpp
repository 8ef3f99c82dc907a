#include "kernels/worker_pool.h"

#include "platform/signal.h"

namespace noxel {

WorkerPool::~WorkerPool() {
  pthread_cond_destroy(&idle_);
  pthread_cond_destroy(&wake_);
  pthread_mutex_destroy(&mutex_);
}

void WorkerPool::takeItems() {
  for (;;) {
    const int item = nextItem_.fetch_add(1, std::memory_order_relaxed);
    if (item >= itemCount_) return;
    work_(job_, item);
  }
}

void WorkerPool::serve() {
  uint32_t seen = 0;
  Lock lock(mutex_);
  for (;;) {
    while (!stopping_ && (!open_ || generation_ == seen)) pthread_cond_wait(&wake_, &mutex_);
    if (stopping_) return;
    seen = generation_;
    ++busyWorkers_;
    pthread_mutex_unlock(&mutex_);
    takeItems();
    pthread_mutex_lock(&mutex_);
    if (--busyWorkers_ == 0) pthread_cond_signal(&idle_);
  }
}

void WorkerPool::stop() {
  Lock lock(mutex_);
  stopping_ = true;
  pthread_cond_broadcast(&wake_);
}

void WorkerPool::run(int count, Work work, void* job) {
  {
    Lock lock(mutex_);
    work_ = work;
    job_ = job;
    itemCount_ = count;
    nextItem_.store(0, std::memory_order_relaxed);
    ++generation_;
    open_ = true;
    pthread_cond_broadcast(&wake_);
  }
  takeItems();
  Lock lock(mutex_);
  open_ = false;  // late workers would find nothing to do
  while (busyWorkers_ > 0) pthread_cond_wait(&idle_, &mutex_);
}

}  // namespace noxel
