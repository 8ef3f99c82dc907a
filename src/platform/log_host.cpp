#include "platform/log_host.h"

#if defined(__ANDROID__)

#include <android/log.h>

namespace noxel::platform {

void printToHost(int priority, const char* tag, const char* format, va_list arguments) {
  __android_log_vprint(priority, tag, format, arguments);
}

}  // namespace noxel::platform

#else

#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/log.h"

namespace noxel::platform {
namespace {

constexpr size_t kPieceSize = 1024;

// Lives for ever: a GPU thread may log while the process exits.
pthread_mutex_t sinkMutex = PTHREAD_MUTEX_INITIALIZER;
LogSink currentSink = nullptr;  // guarded by sinkMutex, as the two below
void* currentContext = nullptr;
int currentLevel = 0;  // 0: not read from the environment yet

void writeToStandardError(int priority, const char* tag, const char* message) {
  static constexpr char kLetters[] = "??VDIWEF";
  const char letter = priority >= 0 && priority <= 7 ? kLetters[priority] : '?';
  const size_t length = std::strlen(message);
  const bool endsLine = length > 0 && message[length - 1] == '\n';
  std::fprintf(stderr, "%c/%s: %s%s", letter, tag, message, endsLine ? "" : "\n");
}

int levelLocked() {
  if (currentLevel == 0) {
    const char* text = std::getenv("NOXEL_LOG_LEVEL");
    const int value = text != nullptr ? std::atoi(text) : 0;
    currentLevel = value >= 2 && value <= 8 ? value : kLogInfo;
  }
  return currentLevel;
}

void emitLocked(int priority, const char* tag, const char* message) {
  if (currentSink != nullptr) {
    currentSink(currentContext, priority, tag, message);
  } else {
    writeToStandardError(priority, tag, message);
  }
}

}  // namespace

void setLogSink(LogSink sink, void* context) {
  pthread_mutex_lock(&sinkMutex);
  currentSink = sink;
  currentContext = context;
  pthread_mutex_unlock(&sinkMutex);
}

int setLogLevel(int priority) {
  pthread_mutex_lock(&sinkMutex);
  const int before = levelLocked();
  currentLevel = priority < 2 ? 2 : priority;
  pthread_mutex_unlock(&sinkMutex);
  return before;
}

void printToHost(int priority, const char* tag, const char* format, va_list arguments) {
  pthread_mutex_lock(&sinkMutex);
  if (priority >= levelLocked()) {
    char piece[kPieceSize];
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(piece, sizeof(piece), format, arguments);
    char* whole = length >= static_cast<int>(sizeof(piece))
                      ? static_cast<char*>(std::malloc(static_cast<size_t>(length) + 1))
                      : nullptr;
    if (whole != nullptr) std::vsnprintf(whole, static_cast<size_t>(length) + 1, format, again);
    va_end(again);
    // Without memory for the whole message its first piece still goes out.
    emitLocked(priority, tag, whole != nullptr ? whole : piece);
    std::free(whole);
  }
  pthread_mutex_unlock(&sinkMutex);
}

}  // namespace noxel::platform

#endif  // !__ANDROID__
