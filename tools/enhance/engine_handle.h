// An engine that is released with its owner.
#pragma once

#include "api/engine_control.h"

namespace noxel::tool {

class EngineHandle {
 public:
  // Made so that each call returns its own frame. ToolError, with kExitNoGl where no engine can work.
  EngineHandle(int width, int height, int mode);
  ~EngineHandle() { releaseEngine(&engine_); }
  EngineHandle(const EngineHandle&) = delete;
  EngineHandle& operator=(const EngineHandle&) = delete;

  _KRSuperResEngine* get() const { return engine_; }
  void process(unsigned char* frame) const;  // as KRProcessFrame; ToolError where that fails

 private:
  _KRSuperResEngine* engine_ = nullptr;
};

}  // namespace noxel::tool
