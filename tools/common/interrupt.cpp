#include "common/interrupt.h"

#include <csignal>

namespace noxel::tool {
namespace {

// Written by the signal handler on any thread, read between frames and while the input blocks.
volatile std::sig_atomic_t stop = 0;

void onSignal(int) {
  stop = 1;
}

}  // namespace

void installInterruptHandlers() {
  struct sigaction action = {};
  action.sa_handler = onSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

bool stopRequested() {
  return stop != 0;
}

void requestStop(bool request) {
  stop = request ? 1 : 0;
}

}  // namespace noxel::tool
