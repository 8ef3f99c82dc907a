// Pages opened in headless Chromium; NEEDS_BROWSER for tests that do.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

#include "run_command.h"

namespace noxel::tool {

// NOXEL_REQUIRE_BROWSER=1 makes a missing browser a failure.
inline bool browserRequired() {
  const char* required = std::getenv("NOXEL_REQUIRE_BROWSER");
  return required != nullptr && std::strcmp(required, "1") == 0;
}

inline bool browserIsMissing() {
  return runCommand("/bin/sh", "-c 'command -v chromium'").exitCode != 0;
}

#define NEEDS_BROWSER()                                      \
  if (browserIsMissing()) {                                  \
    if (browserRequired()) FAIL() << "there is no chromium"; \
    GTEST_SKIP() << "there is no chromium";                  \
  }                                                          \
  static_assert(true)

struct OpenedPage {
  std::string elements;  // as the page's script left them
  std::string console;   // what the browser logged, of itself too
  bool complains() const { return console.find(":CONSOLE") != std::string::npos; }
};

// Without a sandbox, which root may not have.
inline OpenedPage openPage(const std::string& path, const std::string& options = "") {
  const TemporaryDirectory profile;
  const Outcome outcome = runCommand(
      "chromium",
      "--headless --no-sandbox --disable-gpu --disable-dev-shm-usage --no-first-run --disable-background-networking "
      "--disable-component-update --disable-sync --enable-logging=stderr --virtual-time-budget=10000 "
      "--window-size=1000,900 --user-data-dir='" +
          profile.file("profile") + "' " + options + " --dump-dom 'file://" + path + "'",
      "HOME='" + profile.file("home") + "'");
  EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
  return {outcome.out, outcome.error};
}

// What a report was drawn from.
inline nlohmann::json dataOf(const std::string& page) {
  const std::string begin = "id=\"data\">";
  const size_t from = page.find(begin) + begin.size();
  return nlohmann::json::parse(page.substr(from, page.find("</script>", from) - from));
}

}  // namespace noxel::tool
