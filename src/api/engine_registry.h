// Which engines are alive, and who still uses them.
#pragma once

#include "api/engine.h"

namespace noxel {

// From here on the engine can be referenced.
void publishEngine(_KRSuperResEngine* engine);

// Takes the engine off the list, so that no new reference is given. False when it is not on it: such a pointer is not
// followed. The caller alone may go on to release it.
bool retireEngine(_KRSuperResEngine* engine);

// After retireEngine: returns when nobody else uses the engine.
void waitForReferences(_KRSuperResEngine* engine);

// Frees the memory of an engine once kRecordsKept later ones have been freed so: until then no engine is made in it, and
// handles to it are refused.
inline constexpr int kRecordsKept = 64;
void freeRecordLater(void* memory);

// Frees what is kept; when the library is unloaded or the process ends at the latest.
[[gnu::destructor]] void freeRecords();

// Keeps an engine from being freed. Null when the pointer is no live engine.
class EngineReference {
 public:
  explicit EngineReference(_KRSuperResEngine* candidate);
  ~EngineReference();
  EngineReference(const EngineReference&) = delete;
  EngineReference& operator=(const EngineReference&) = delete;

  explicit operator bool() const { return engine != nullptr; }

 private:
  _KRSuperResEngine* engine;
};

}  // namespace noxel
