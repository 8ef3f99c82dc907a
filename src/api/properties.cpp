#include "api/properties.h"

#include <sys/time.h>

#include <cstdlib>

#include "api/engine.h"
#include "platform/log.h"
#include "platform/properties.h"
#include "platform/signal.h"

namespace noxel {

namespace {

pthread_mutex_t propertyMutex = PTHREAD_MUTEX_INITIALIZER;
int propertyInterfaceMissing = 1;  // under propertyMutex, as the two below
platform::PropertyGet propertyGet = nullptr;
timeval startTime = {};

}  // namespace

int loadPropertyInterface() {
  gettimeofday(&startTime, nullptr);
  const platform::DynamicLibraries& libraries = platform::dynamicLibraries();
  void* library = libraries.open("libcutils.so");  // stays open: the function is called for as long as we are loaded
  if (library == nullptr) {
    NOXEL_LOG_ERROR("ERROR: could not dlopen libcutils.so: %s", libraries.lastError());
    return 1;
  }
  propertyGet = reinterpret_cast<platform::PropertyGet>(libraries.symbol(library, "property_get"));
  if (propertyGet == nullptr) {
    NOXEL_LOG_ERROR("ERROR: could not dlsym Link_property_get: %s", libraries.lastError());
    return 1;
  }
  return 0;
}

void readDebugProperty() {
  Lock lock(propertyMutex);
  if (propertyInterfaceMissing == 0) return;
  propertyInterfaceMissing = loadPropertyInterface();
  if (propertyInterfaceMissing != 0) {
    NOXEL_LOG_INFO("!!!!!!!!!!!!!!!!!!!!!! INITIALIZING INTERFACE FAILED!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!");
    return;
  }
  char value[platform::kPropertyValueMax] = {};
  propertyGet("persist.camera.rtsp.log", value, "0");
  debugLog.store(std::atoi(value) != 0 ? 1 : 0, std::memory_order_relaxed);
}

void forgetPropertyInterface() {
  Lock lock(propertyMutex);
  propertyInterfaceMissing = 1;
  propertyGet = nullptr;
}

}  // namespace noxel
