// What becomes of the engine's log lines.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace noxel::tool {

// While it lives, the engine's log goes to standard error (verbose) or nowhere, and its error lines are kept. One at a
// time.
class EngineLog {
 public:
  explicit EngineLog(bool verbose);
  ~EngineLog();
  EngineLog(const EngineLog&) = delete;
  EngineLog& operator=(const EngineLog&) = delete;

  // To standard error, unless they have been seen there already.
  void printErrors() const;

 private:
  static void receive(void* context, int priority, const char* tag, const char* message);

  const bool verbose_;
  mutable std::mutex mutex_;         // lines come from the engine's threads
  std::vector<std::string> errors_;  // the first few, guarded by mutex_
};

}  // namespace noxel::tool
