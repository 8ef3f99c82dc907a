// Captures the library's log in a test.
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

// Redirects the log during its lifetime. One at a time; any thread may log.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const;
  bool contains(const std::string& part) const;
  std::string text() const;  // one line per message

 private:
  static void take(void* context, int priority, const char* tag, const char* message);

  const int levelBefore;  // the capture takes kLogInfo and above, whatever the environment says
  mutable std::mutex mutex;
  std::vector<LogLine> taken;  // guarded by mutex
};

}  // namespace noxel
