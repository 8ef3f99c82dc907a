#include "common/engine_log.h"

#include <atomic>
#include <cstdio>
#include <utility>

#include "noxel/enhancer.h"

namespace noxel::tool {
namespace {

std::atomic<EngineLog*> current = nullptr;
constexpr size_t kKeptErrors = 20;  // the first ones name the cause; a broken driver logs the same for every frame

}  // namespace

EngineLog::EngineLog(bool verbose) : verbose_(verbose) {
  current.store(this);
}

EngineLog::~EngineLog() {
  current.store(nullptr);
}

void EngineLog::receive(void*, int level, const char* message) {
  if (EngineLog* log = current.load()) log->add(level, message);
}

void EngineLog::add(int level, std::string line) {
  while (!line.empty() && line.back() == '\n') line.pop_back();
  if (verbose_) {
    std::fprintf(stderr, "%s\n", line.c_str());
  } else if (level >= NOXEL_LOG_FAILURE) {
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
