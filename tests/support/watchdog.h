// Ends a test program that hangs, and says in what.
#pragma once

#include <unistd.h>

#include <csignal>
#include <cstring>

namespace noxel {

inline char watchedFor[200];  // told when the time is up

// From now on; 0 calls the watchdog off.
inline void watch(unsigned seconds) {
  signal(SIGALRM, [](int) {
    (void)!write(STDERR_FILENO, watchedFor, std::strlen(watchedFor));
    _exit(3);
  });
  alarm(seconds);
}

}  // namespace noxel
