// The library's log in the tool.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace noxel::tool {

// During its lifetime the library's log goes to standard error (verbose), or is dropped but for its first errors. One at a
// time.
class EngineLog {
 public:
  explicit EngineLog(bool verbose);
  ~EngineLog();
  EngineLog(const EngineLog&) = delete;
  EngineLog& operator=(const EngineLog&) = delete;

  // A noxel_log_function. Any thread; a line is dropped where there is no EngineLog.
  static void receive(void* context, int level, const char* message);

  // Its first errors to standard error; nothing if verbose, as they are there already. Without an EngineLog nothing.
  void printErrors() const;
  static void printKept();

 private:
  void add(int level, std::string line);

  const bool verbose_;
  mutable std::mutex mutex_;         // the engine's threads log
  std::vector<std::string> errors_;  // the first few, guarded by mutex_
};

}  // namespace noxel::tool
