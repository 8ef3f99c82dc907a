#include "common/info.h"

#include <cstdio>

#include "common/engine_log.h"
#include "common/program_cache_path.h"
#include "common/tool_error.h"
#include "gl/runtime/driver_info.h"
#include "noxel/noxel.h"
#include "platform/cache_directory.h"
#include "platform/egl_display.h"

namespace noxel::tool {
namespace {

void line(const char* name, const char* value) {
  std::printf("%-16s%s\n", name, value);
}

}  // namespace

int runInfo(bool verbose) {
  useProgramCache();
  const EngineLog log(verbose);
  const char* cache = platform::programCacheDirectory();
  std::printf("%s\n", Noxel_GetVersion());
  line("EGL platform", platform::engineDisplayName());
  line("program cache", cache[0] != '\0' ? cache : "none (no writable home directory)");
  DriverInfo driver;
  if (!queryDriver(&driver)) {
    std::fflush(stdout);
    log.printErrors();
    throw ToolError(kExitNoGl, "no usable OpenGL ES 3.0; install a driver (Mesa's software driver will do)");
  }
  line("EGL vendor", driver.eglVendor);
  line("EGL version", driver.eglVersion);
  line("GL vendor", driver.glVendor);
  line("GL renderer", driver.glRenderer);
  line("GL version", driver.glVersion);
  line("programs cached", driver.programBinaryFormats > 0 && cache[0] != '\0' ? "yes" : "no");
  return kExitFine;
}

}  // namespace noxel::tool
