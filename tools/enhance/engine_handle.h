// An engine, released by its destructor.
#pragma once

#include "api/engine_control.h"
#include "enhance/pass_times.h"

namespace noxel::tool {

class EngineHandle {
 public:
  // Synchronous: each call returns its own frame. ToolError, kExitNoGl without usable GL.
  EngineHandle(int width, int height, int mode);
  ~EngineHandle() { releaseEngine(&engine_); }
  EngineHandle(const EngineHandle&) = delete;
  EngineHandle& operator=(const EngineHandle&) = delete;

  _KRSuperResEngine* get() const { return engine_; }
  // Adds each pass from now on to `times`, which must outlive the engine.
  void timePasses(std::vector<PassTime>& times) const;
  void process(unsigned char* frame) const;  // KRProcessFrame; ToolError when it fails

 private:
  _KRSuperResEngine* engine_ = nullptr;
};

}  // namespace noxel::tool
