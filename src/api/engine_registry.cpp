#include "api/engine_registry.h"

#include <cstdlib>

namespace noxel {
namespace {

// Leaf lock. All of these live for ever: a call may end while the process exits.
pthread_mutex_t registryMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t referenceDropped = PTHREAD_COND_INITIALIZER;
_KRSuperResEngine* firstLive = nullptr;
void* records[kRecordsKept];  // of released engines, a ring
int nextRecord = 0;

_KRSuperResEngine** findLink(_KRSuperResEngine* engine) {
  for (_KRSuperResEngine** link = &firstLive; *link != nullptr; link = &(*link)->nextLive) {
    if (*link == engine) return link;
  }
  return nullptr;
}

}  // namespace

void publishEngine(_KRSuperResEngine* engine) {
  Lock lock(registryMutex);
  engine->nextLive = firstLive;
  firstLive = engine;
}

bool retireEngine(_KRSuperResEngine* engine) {
  Lock lock(registryMutex);
  _KRSuperResEngine** link = findLink(engine);
  if (link == nullptr) return false;
  *link = engine->nextLive;
  return true;
}

void waitForReferences(_KRSuperResEngine* engine) {
  Lock lock(registryMutex);
  while (engine->references > 0) pthread_cond_wait(&referenceDropped, &registryMutex);
}

void freeRecordLater(void* memory) {
  Lock lock(registryMutex);
  std::free(records[nextRecord]);
  records[nextRecord] = memory;
  nextRecord = (nextRecord + 1) % kRecordsKept;
}

void freeRecords() {
  Lock lock(registryMutex);
  for (void*& record : records) {
    std::free(record);
    record = nullptr;
  }
}

EngineReference::EngineReference(_KRSuperResEngine* candidate) : engine(nullptr) {
  Lock lock(registryMutex);
  if (candidate == nullptr || findLink(candidate) == nullptr) return;
  engine = candidate;
  ++engine->references;
}

EngineReference::~EngineReference() {
  if (engine == nullptr) return;
  Lock lock(registryMutex);
  if (--engine->references == 0) pthread_cond_broadcast(&referenceDropped);
}

}  // namespace noxel
