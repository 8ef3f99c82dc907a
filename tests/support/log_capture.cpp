#include "support/log_capture.h"

#include "platform/log.h"

namespace noxel {

LogCapture::LogCapture() : levelBefore(platform::setLogLevel(platform::kLogInfo)) {
  platform::setLogSink(take, this);
}

LogCapture::~LogCapture() {
  platform::setLogSink(nullptr, nullptr);
  platform::setLogLevel(levelBefore);
}

void LogCapture::take(void* context, int priority, const char* tag, const char* message) {
  auto* capture = static_cast<LogCapture*>(context);
  const std::lock_guard lock(capture->mutex);
  capture->taken.push_back({priority, tag, message});
}

std::vector<LogLine> LogCapture::lines() const {
  const std::lock_guard lock(mutex);
  return taken;
}

bool LogCapture::contains(const std::string& part) const {
  return text().find(part) != std::string::npos;
}

std::string LogCapture::text() const {
  std::string all;
  for (const LogLine& line : lines()) all += line.tag + ": " + line.message + "\n";
  return all;
}

}  // namespace noxel
