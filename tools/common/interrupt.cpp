#include "common/interrupt.h"

#include <csignal>
#include <ctime>

#include "common/output_file.h"

namespace noxel::tool {
namespace {

constexpr long kSameNs = 50'000'000;  // two signals closer than that are one: `timeout -s INT` sends it twice

// Written by the signal handler on any thread, read between frames and while the input blocks. 0: no stop; else the signal.
volatile std::sig_atomic_t stop = 0;
timespec stoppedAt = {};  // the handler's own

long sinceNs(const timespec& earlier) {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  if (now.tv_sec - earlier.tv_sec > 1) return kSameNs;
  return (now.tv_sec - earlier.tv_sec) * 1'000'000'000 + now.tv_nsec - earlier.tv_nsec;
}

void onSignal(int signal) {
  if (stop == 0) {
    clock_gettime(CLOCK_MONOTONIC, &stoppedAt);
    stop = signal;
  } else if (signal == SIGINT && sinceNs(stoppedAt) >= kSameNs) {
    removePendingFiles();
    std::signal(SIGINT, SIG_DFL);
    std::raise(SIGINT);  // ends the process when the handler returns
  }
}

}  // namespace

void installInterruptHandlers() {
  struct sigaction action = {};
  action.sa_handler = onSignal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  struct sigaction hangup = {};
  sigaction(SIGHUP, nullptr, &hangup);
  if (hangup.sa_handler != SIG_IGN) sigaction(SIGHUP, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

bool stopRequested() {
  return stop != 0;
}

ExitCode stoppedExitCode() {
  const int signal = stop;
  if (signal == 0) return kExitFine;
  return signal == SIGHUP ? kExitHangup : signal == SIGTERM ? kExitTerminated : kExitInterrupted;
}

ToolError stoppedBeforeTheFirstFrame() {
  return {stoppedExitCode(), "stopped before the first frame; nothing was written"};
}

void requestStop(bool request) {
  stop = request ? SIGINT : 0;
}

}  // namespace noxel::tool
