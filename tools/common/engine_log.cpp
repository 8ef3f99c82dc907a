#include "common/engine_log.h"

#include <cstdio>

#include "platform/log.h"

namespace noxel::tool {
namespace {

constexpr size_t kKeptErrors = 20;  // the first ones name the cause; a broken driver logs the same for every frame

}  // namespace

EngineLog::EngineLog(bool verbose) : verbose_(verbose) {
  platform::setLogSink(receive, this);
}

EngineLog::~EngineLog() {
  platform::setLogSink(nullptr, nullptr);
}

void EngineLog::receive(void* context, int priority, const char* tag, const char* message) {
  auto* log = static_cast<EngineLog*>(context);
  std::string line = std::string(tag) + ": " + message;
  while (!line.empty() && line.back() == '\n') line.pop_back();
  if (log->verbose_) {
    std::fprintf(stderr, "%s\n", line.c_str());
  } else if (priority >= platform::kLogError) {
    const std::lock_guard lock(log->mutex_);
    if (log->errors_.size() < kKeptErrors) log->errors_.push_back(line);
  }
}

void EngineLog::printErrors() const {
  const std::lock_guard lock(mutex_);
  for (const std::string& line : errors_) std::fprintf(stderr, "%s\n", line.c_str());
}

}  // namespace noxel::tool
