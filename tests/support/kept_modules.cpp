// For programs under LeakSanitizer: nothing is unloaded, so that a leak of the driver, which EGL unloads with the last
// display, is told as the driver's and not as an unknown module's.
#include <dlfcn.h>

extern "C" __attribute__((visibility("default"))) int dlclose(void*) {
  return 0;
}
