#include "common/info.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "common/engine_log.h"
#include "common/program_cache_path.h"
#include "common/tool_error.h"
#include "noxel/enhancer.h"

namespace noxel::tool {
namespace {

void line(const char* name, const char* value) {
  std::printf("%-16s%s\n", name, value);
}

nlohmann::ordered_json jsonOf(const noxel_driver& driver, const std::string& cache) {
  return {{"egl_vendor", driver.egl_vendor}, {"egl_version", driver.egl_version},
          {"vendor", driver.gl_vendor},      {"renderer", driver.gl_renderer},
          {"version", driver.gl_version},    {"programs_cached", driver.keeps_programs != 0 && !cache.empty()}};
}

void printJson(const noxel_driver& driver, bool usable, const std::string& cache) {
  const nlohmann::ordered_json json = {{"noxel", noxel_version()},
                                       {"egl_platform", driver.display},
                                       {"program_cache", cache.empty() ? nullptr : nlohmann::ordered_json(cache)},
                                       {"gl", usable ? jsonOf(driver, cache) : nlohmann::ordered_json()}};
  std::printf("%s\n", json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

void print(const noxel_driver& driver, bool usable, const std::string& cache) {
  line("noxel", noxel_version());
  line("EGL platform", driver.display);
  line("program cache", cache.empty() ? "none (no writable home directory)" : cache.c_str());
  if (!usable) return;
  line("EGL vendor", driver.egl_vendor);
  line("EGL version", driver.egl_version);
  line("GL vendor", driver.gl_vendor);
  line("GL renderer", driver.gl_renderer);
  line("GL version", driver.gl_version);
  line("programs cached", driver.keeps_programs != 0 && !cache.empty() ? "yes" : "no");
}

}  // namespace

int runInfo(bool verbose, bool json) {
  const EngineLog log(verbose);
  const std::string cache = programCacheDirectory();
  noxel_driver driver = {};
  driver.size = sizeof(driver);
  const bool usable = noxel_query_driver(&driver, EngineLog::receive, nullptr) == NOXEL_OK;
  (json ? printJson : print)(driver, usable, cache);
  if (usable) return kExitFine;
  std::fflush(stdout);
  log.printErrors();
  throw ToolError(kExitNoGl, "no usable OpenGL ES 3.0; install a driver (Mesa's software driver will do)");
}

}  // namespace noxel::tool
