#include "common/info.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

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

[[noreturn]] void failWithoutDriver(const EngineLog& log) {
  std::fflush(stdout);
  log.printErrors();
  throw ToolError(kExitNoGl, "no usable OpenGL ES 3.0; install a driver (Mesa's software driver will do)");
}

int runJson(const std::string& cache, const EngineLog& log) {
  nlohmann::ordered_json json = {{"noxel", Noxel_GetVersion()},
                                 {"egl_platform", platform::engineDisplayName()},
                                 {"program_cache", cache.empty() ? nullptr : nlohmann::ordered_json(cache)},
                                 {"gl", nullptr}};
  DriverInfo driver;
  const bool usable = queryDriver(&driver);
  if (usable) {
    json["gl"] = {
        {"egl_vendor", driver.eglVendor}, {"egl_version", driver.eglVersion},
        {"vendor", driver.glVendor},      {"renderer", driver.glRenderer},
        {"version", driver.glVersion},    {"programs_cached", driver.programBinaryFormats > 0 && !cache.empty()}};
  }
  std::printf("%s\n", json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
  if (!usable) failWithoutDriver(log);
  return kExitFine;
}

}  // namespace

int runInfo(bool verbose, bool json) {
  useProgramCache();
  const EngineLog log(verbose);
  const char* cache = platform::programCacheDirectory();
  if (json) return runJson(cache, log);
  std::printf("%s\n", Noxel_GetVersion());
  line("EGL platform", platform::engineDisplayName());
  line("program cache", cache[0] != '\0' ? cache : "none (no writable home directory)");
  DriverInfo driver;
  if (!queryDriver(&driver)) failWithoutDriver(log);
  line("EGL vendor", driver.eglVendor);
  line("EGL version", driver.eglVersion);
  line("GL vendor", driver.glVendor);
  line("GL renderer", driver.glRenderer);
  line("GL version", driver.glVersion);
  line("programs cached", driver.programBinaryFormats > 0 && cache[0] != '\0' ? "yes" : "no");
  return kExitFine;
}

}  // namespace noxel::tool
