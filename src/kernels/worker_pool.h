// Threads that help with a job: a frame's registration, a plane's filter. The pool starts none itself: whoever owns
// threads lends them by calling serve(), and takes them back with stop().
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace noxel {

class WorkerPool {
 public:
  // Does item `index` of the job; may run on any thread, several at once.
  using Work = void (*)(void* job, int index);

  WorkerPool() = default;
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Body of a worker thread: returns after stop().
  void serve();
  // Ends every serve(), running and to come. The threads are the caller's to join.
  void stop();
  // Does items 0..count-1 on the calling thread and the workers, returns when all are done. One caller at a time.
  void run(int count, Work work, void* job);

 private:
  void takeItems();

  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t wake_ = PTHREAD_COND_INITIALIZER;
  pthread_cond_t idle_ = PTHREAD_COND_INITIALIZER;
  bool stopping_ = false;    // under mutex, as the next three
  uint32_t generation_ = 0;  // of the job, so that a worker takes each once
  int busyWorkers_ = 0;      // inside takeItems
  bool open_ = false;        // the job takes workers

  // Written under the mutex before the generation is raised, read by the workers after they saw it.
  Work work_ = nullptr;
  void* job_ = nullptr;
  int itemCount_ = 0;
  std::atomic<int> nextItem_ = 0;
};

}  // namespace noxel
