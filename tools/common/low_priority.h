// Work that is to take what processor time the rest of the tool leaves.
#pragma once

#include <unistd.h>

#include <thread>

namespace noxel::tool {

// Calls `start` and returns its result. The threads that it starts run at a lower priority: they stand back while the engine draws,
// and fill the gaps between its passes. Where a priority is the process's own and not each thread's, nothing is changed.
template <typename Start>
auto withThreadsOfLowPriority(Start start) {
  constexpr int kNicer = 10;
  decltype(start()) result{};
  std::thread starter([&] {
#ifdef __linux__
    [[maybe_unused]] const int ignored = nice(kNicer);
#endif
    result = start();
  });
  starter.join();
  return result;
}

}  // namespace noxel::tool
