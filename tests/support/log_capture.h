// What the library logs, for a test to look at.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace noxel {

struct LogLine {
  int priority;
  std::string tag;
  std::string message;
};

// Takes the log from its construction to its destruction; standard error gets it back then. One at a time. Any thread
// may log meanwhile.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const;
  bool contains(const std::string& part) const;
  std::string text() const;  // one line a message, for a failure's report

 private:
  static void take(void* context, int priority, const char* tag, const char* message);

  const int levelBefore;  // the capture sees information and above whatever the environment says
  mutable std::mutex mutex;
  std::vector<LogLine> taken;  // guarded by mutex
};

}  // namespace noxel
