// Log lines on their way to a function of the caller's.
#pragma once

#include "noxel/enhancer.h"
#include "platform/log.h"

namespace noxel {

// Stays where it was made: the target points to it.
class CallerLog {
 public:
  // function: null drops the lines.
  CallerLog(noxel_log_function function, void* context) : function_(function), context_(context) {
    if (function != nullptr) target_.write = write;
    target_.context = this;
  }
  CallerLog(const CallerLog&) = delete;
  CallerLog& operator=(const CallerLog&) = delete;

  platform::LogTarget* target() { return &target_; }

 private:
  static void write(void* self, int priority, const char* message) {
    const auto* log = static_cast<const CallerLog*>(self);
    log->function_(log->context_, priority, message);
  }

  noxel_log_function function_;
  void* context_;
  platform::LogTarget target_;
};

}  // namespace noxel
