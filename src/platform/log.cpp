#include "platform/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "platform/log_host.h"

namespace noxel::platform {
namespace {

thread_local LogTarget* currentTarget = nullptr;

void printToTarget(LogTarget* target, int priority, const char* format, va_list arguments) {
  char line[1024];  // longer ones are cut
  int length = std::vsnprintf(line, sizeof(line), format, arguments);
  if (length < 0) return;
  if (length >= static_cast<int>(sizeof(line))) length = sizeof(line) - 1;
  while (length > 0 && line[length - 1] == '\n') line[--length] = '\0';
  pthread_mutex_lock(&target->mutex);
  target->write(target->context, priority, line);
  pthread_mutex_unlock(&target->mutex);
}

}  // namespace

LogScope::LogScope(LogTarget* target) : before_(currentTarget) {
  currentTarget = target;
}

LogScope::~LogScope() {
  currentTarget = before_;
}

void print(int priority, const char* tag, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  if (currentTarget == nullptr) {
    printToHost(priority, tag, format, arguments);
  } else if (currentTarget->write != nullptr) {
    printToTarget(currentTarget, priority, format, arguments);
  }
  va_end(arguments);
}

}  // namespace noxel::platform
