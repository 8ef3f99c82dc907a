// Where log lines go: to the engine's own target, else to the host's log, which is Android's liblog or standard error.
#pragma once

#include <pthread.h>

#include <atomic>

namespace noxel {

inline std::atomic<int> debugLog = 0;  // 1: verbose. Relaxed.

}  // namespace noxel

namespace noxel::platform {

inline constexpr int kLogInfo = 4;   // ANDROID_LOG_INFO
inline constexpr int kLogWarning = 5;  // ANDROID_LOG_WARN
inline constexpr int kLogError = 6;  // ANDROID_LOG_ERROR
inline constexpr char kLogTag[] = "Korvane";

// As printf. Any thread. Lines below the host's level do not reach the host's log.
void print(int priority, const char* tag, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Lines of one engine. `write` gets them without a final newline, one call at a time; null drops them. It must not log.
struct LogTarget {
  void (*write)(void* context, int priority, const char* message) = nullptr;
  void* context = nullptr;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

// While it lives, lines of this thread go to the target; null: to the host's log. The target must outlive it.
class LogScope {
 public:
  explicit LogScope(LogTarget* target);
  ~LogScope();
  LogScope(const LogScope&) = delete;
  LogScope& operator=(const LogScope&) = delete;

 private:
  LogTarget* const before_;
};

#if !defined(__ANDROID__)
// `message` is not terminated by a newline unless the caller's format was; it lives for the duration of the call.
using LogSink = void (*)(void* context, int priority, const char* tag, const char* message);

// Replaces standard error as the host's log; null restores it. Takes effect for lines logged after the call; calls of
// the sink are serialised, so it needs no lock of its own, and it must not log.
void setLogSink(LogSink sink, void* context);

// Lowest priority that is passed on: 2 (verbose) .. 7 (fatal), 8 silences. Starts at 4, or at the value of the
// environment variable NOXEL_LOG_LEVEL. Returns the level before.
int setLogLevel(int priority);
#endif

}  // namespace noxel::platform

#define NOXEL_LOG_INFO(...) \
  ::noxel::platform::print(::noxel::platform::kLogInfo, ::noxel::platform::kLogTag, __VA_ARGS__)
#define NOXEL_LOG_VERBOSE(...) \
  (::noxel::debugLog.load(std::memory_order_relaxed) == 1 ? NOXEL_LOG_INFO(__VA_ARGS__) : void())
#define NOXEL_LOG_WARNING(...) \
  ::noxel::platform::print(::noxel::platform::kLogWarning, ::noxel::platform::kLogTag, __VA_ARGS__)
#define NOXEL_LOG_ERROR(...) \
  ::noxel::platform::print(::noxel::platform::kLogError, ::noxel::platform::kLogTag, __VA_ARGS__)
