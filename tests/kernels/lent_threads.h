// Threads lent to a pool.
#pragma once

#include <thread>
#include <vector>

#include "kernels/worker_pool.h"

namespace noxel {

struct Lent {
  Lent(WorkerPool* lentTo, int count) : pool(lentTo) {
    for (int i = 0; i < count; ++i) threads.emplace_back([this] { pool->serve(); });
  }
  ~Lent() {
    pool->stop();
    for (std::thread& thread : threads) thread.join();
  }
  WorkerPool* pool;
  std::vector<std::thread> threads;
};

}  // namespace noxel
