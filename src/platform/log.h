// The log of the host: Android's liblog there, standard error elsewhere.
#pragma once

#include <atomic>

#if defined(__ANDROID__)
#include <android/log.h>
#else
// Same contract as liblog's function of that name. Lines below the level are dropped; the others go to the sink.
// Any thread.
extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
#endif

namespace noxel {

inline std::atomic<int> debugLog = 0;  // 1: verbose. Relaxed.

}  // namespace noxel

namespace noxel::platform {

inline constexpr int kLogInfo = 4;   // ANDROID_LOG_INFO
inline constexpr int kLogError = 6;  // ANDROID_LOG_ERROR
inline constexpr char kLogTag[] = "Korvane";

#if !defined(__ANDROID__)
// `message` is not terminated by a newline unless the caller's format was; it lives for the duration of the call.
using LogSink = void (*)(void* context, int priority, const char* tag, const char* message);

// Replaces standard error as the destination; null restores it. Takes effect for lines logged after the call; calls of
// the sink are serialised, so it needs no lock of its own, and it must not log.
void setLogSink(LogSink sink, void* context);

// Lowest priority that is passed on: 2 (verbose) .. 7 (fatal), 8 silences. Starts at 4, or at the value of the
// environment variable NOXEL_LOG_LEVEL. Returns the level before.
int setLogLevel(int priority);
#endif

}  // namespace noxel::platform

#define NOXEL_LOG_INFO(...) __android_log_print(::noxel::platform::kLogInfo, ::noxel::platform::kLogTag, __VA_ARGS__)
#define NOXEL_LOG_VERBOSE(...) \
  (::noxel::debugLog.load(std::memory_order_relaxed) == 1 ? NOXEL_LOG_INFO(__VA_ARGS__) : 0)
#define NOXEL_LOG_ERROR(...) __android_log_print(::noxel::platform::kLogError, ::noxel::platform::kLogTag, __VA_ARGS__)
