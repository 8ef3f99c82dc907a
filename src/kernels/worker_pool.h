// Threads that share a job: registration of a frame, a filter on a plane. The pool starts none: a thread joins by
// calling serve() and leaves after stop().
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace noxel {

class WorkerPool {
 public:
  // Does item `index` of the job; called on several threads at once.
  using Work = void (*)(void* job, int index);

  WorkerPool() = default;
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Body of a worker thread: returns after stop().
  void serve();
  // Ends every running and future serve(). The caller joins the threads.
  void stop();
  // Does items 0..count-1 on the calling thread and the workers; returns when all are done. One caller at a time.
  void run(int count, Work work, void* job);

 private:
  void takeItems();

  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t wake_ = PTHREAD_COND_INITIALIZER;
  pthread_cond_t idle_ = PTHREAD_COND_INITIALIZER;
  bool stopping_ = false;    // under mutex, as the next three
  uint32_t generation_ = 0;  // number of the job: a worker takes each once
  int busyWorkers_ = 0;      // inside takeItems
  bool open_ = false;        // the job takes workers

  // Written under the mutex before generation_ changes, read by the workers after they saw the change.
  Work work_ = nullptr;
  void* job_ = nullptr;
  int itemCount_ = 0;
  std::atomic<int> nextItem_ = 0;
};

}  // namespace noxel
