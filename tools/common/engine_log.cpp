#include "common/engine_log.h"

#include <atomic>
#include <cstdio>
#include <utility>

#include "platform/log.h"

namespace noxel::tool {
namespace {

std::atomic<EngineLog*> current = nullptr;
constexpr size_t kKeptErrors = 20;  // the first ones name the cause; a broken driver logs the same for every frame

}  // namespace

EngineLog::EngineLog(bool verbose) : verbose_(verbose) {
  platform::setLogSink(receive, this);
  current.store(this);
}

EngineLog::~EngineLog() {
  current.store(nullptr);
  platform::setLogSink(nullptr, nullptr);
}

void EngineLog::receive(void* context, int priority, const char* tag, const char* message) {
  static_cast<EngineLog*>(context)->add(priority, std::string(tag) + ": " + message);
}

void EngineLog::take(int level, const char* message) {
  if (EngineLog* log = current.load()) log->add(level, message);
}

void EngineLog::add(int level, std::string line) {
  while (!line.empty() && line.back() == '\n') line.pop_back();
  if (verbose_) {
    std::fprintf(stderr, "%s\n", line.c_str());
  } else if (level >= platform::kLogError) {
    const std::lock_guard lock(mutex_);
    if (errors_.size() < kKeptErrors) errors_.push_back(std::move(line));
  }
}

void EngineLog::printKept() {
  if (const EngineLog* log = current.load()) log->printErrors();
}

void EngineLog::printErrors() const {
  const std::lock_guard lock(mutex_);
  for (const std::string& line : errors_) std::fprintf(stderr, "%s\n", line.c_str());
}

}  // namespace noxel::tool
