#include "enhance/engine_handle.h"

#include <string>

#include "common/tool_error.h"

namespace noxel::tool {

EngineHandle::EngineHandle(int width, int height, int mode) {
  const std::string size = std::to_string(width) + "x" + std::to_string(height);
  if (initializeEngine(width, height, mode, 1, 1, 1, nullptr, &engine_) != 0) {
    throw ToolError(kExitFailed, "cannot make an engine for frames of " + size + "; scale the clip down first");
  }
  if (!engineReady(engine_)) {
    releaseEngine(&engine_);
    throw ToolError(kExitNoGl, "no usable OpenGL ES 3.0 for frames of " + size + "; see `noxel info`");
  }
}

void EngineHandle::timePasses(std::vector<PassTime>& times) const {
  const auto add = [](void* context, const char* pass, uint64_t nanoseconds) {
    static_cast<std::vector<PassTime>*>(context)->push_back({pass, nanoseconds});
  };
  if (observePasses(engine_, add, &times) != 0) throw ToolError(kExitFailed, "the engine's passes cannot be timed");
}

void EngineHandle::process(unsigned char* frame) const {
  if (KRProcessFrame(frame, engine_) != 0) throw ToolError(kExitFailed, "the engine refused a frame");
}

}  // namespace noxel::tool
