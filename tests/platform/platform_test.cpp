#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/cache_directory.h"
#include "platform/egl_display.h"
#include "platform/frame_clock.h"
#include "platform/log.h"
#include "platform/properties.h"
#include "support/log_capture.h"

namespace noxel::platform {
namespace {

// Sets or, with null, unsets a variable. Nothing else in this program reads it.
void put(const char* name, const char* value) {
  value != nullptr ? setenv(name, value, 1) : unsetenv(name);
}

TEST(Properties, ComeFromTheEnvironmentThroughTheOnlyLibrary) {
  const DynamicLibraries& libraries = dynamicLibraries();
  const auto propertyGet =
      reinterpret_cast<PropertyGet>(libraries.symbol(libraries.open("libcutils.so"), "property_get"));
  ASSERT_NE(propertyGet, nullptr);
  put("PERSIST_CAMERA_RTSP_LOG", nullptr);
  char value[kPropertyValueMax + 1];
  EXPECT_EQ(propertyGet("persist.camera.rtsp.log", value, "none"), 4);
  EXPECT_STREQ(value, "none");
  put("PERSIST_CAMERA_RTSP_LOG", "12");
  EXPECT_EQ(propertyGet("persist.camera.rtsp.log", value, "0"), 2);
  EXPECT_STREQ(value, "12");

  const std::string tooLong(200, 'x');
  put("PERSIST_CAMERA_RTSP_LOG", tooLong.c_str());
  std::memset(value, '#', sizeof(value));
  propertyGet("persist.camera.rtsp.log", value, "0");
  EXPECT_EQ(value, tooLong.substr(0, kPropertyValueMax - 1));
  EXPECT_EQ(value[kPropertyValueMax], '#');

  EXPECT_EQ(libraries.open("libc.so"), nullptr);
  EXPECT_STRNE(libraries.lastError(), "");
  EXPECT_EQ(libraries.symbol(libraries.open("libcutils.so"), "property_set"), nullptr);
  EXPECT_EQ(libraries.symbol(nullptr, "property_get"), nullptr);
}

TEST(Log, PassesOnWhatReachesTheLevel) {
  const LogCapture log;
  print(3, "Tag", "debug");
  NOXEL_LOG_INFO("%s %d", "information", 1);
  EXPECT_EQ(setLogLevel(kLogError), kLogInfo);
  NOXEL_LOG_INFO("information 2");
  print(kLogError, "Tag", "error");
  setLogLevel(8);
  NOXEL_LOG_ERROR("error 2");
  EXPECT_EQ(log.text(), "Korvane: information 1\nTag: error\n");
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines()[0].priority, kLogInfo);
  EXPECT_EQ(log.lines()[1].priority, kLogError);
}

TEST(Log, ALongMessageArrivesWhole) {
  const LogCapture log;
  // 1024 bytes, the terminator included, fit without an allocation.
  std::vector<std::string> messages;
  for (const size_t length : {1022, 1023, 1024, 1025, 20000}) {
    messages.push_back(std::string(length - 1, 'm') + '.');
    EXPECT_EQ(NOXEL_LOG_INFO("%s", messages.back().c_str()), static_cast<int>(length));
  }
  ASSERT_EQ(log.lines().size(), messages.size());
  for (size_t i = 0; i < messages.size(); ++i) EXPECT_EQ(log.lines()[i].message, messages[i]);
}

// In a process of its own, as the variable is read once.
TEST(LogDeathTest, TheEnvironmentSetsTheLevelOfStandardError) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        setenv("NOXEL_LOG_LEVEL", "6", 1);
        NOXEL_LOG_INFO("quiet");
        NOXEL_LOG_ERROR("loud");
        NOXEL_LOG_ERROR("with its own end\n");
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "^E/Korvane: loud\nE/Korvane: with its own end\n$");
}

TEST(CacheDirectory, IsCopiedWhenItFitsAndRestored) {
  char directory[] = "cache/";
  ASSERT_TRUE(setProgramCacheDirectory(directory));
  directory[0] = 'X';
  EXPECT_STREQ(programCacheDirectory(), "cache/");
  ASSERT_TRUE(setProgramCacheDirectory(""));
  EXPECT_STREQ(programCacheDirectory(), "");
  const std::string longest(kCacheDirectoryMax - 1, 'd');
  ASSERT_TRUE(setProgramCacheDirectory(longest.c_str()));
  EXPECT_FALSE(setProgramCacheDirectory((longest + 'e').c_str()));
  EXPECT_EQ(programCacheDirectory(), longest);
  ASSERT_TRUE(setProgramCacheDirectory(nullptr));
  EXPECT_STREQ(programCacheDirectory(), "/data/lshaders/");
}

TEST(FrameClock, IsTheTimeOfDay) {
  timeval before = {};
  gettimeofday(&before, nullptr);
  const TimeOfDay now = frameTime();
  const auto elapsed = (now.seconds - before.tv_sec) * 1000000 + now.microseconds - before.tv_usec;
  EXPECT_GE(elapsed, 0);
  EXPECT_LT(elapsed, 10000000);  // ten seconds: a machine may be busy, another epoch is decades away
}

TEST(EglDisplay, FollowsTheDisplayServerThatTheEnvironmentNames) {
  for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "EGL_PLATFORM"}) put(name, nullptr);
  const std::string withoutServer = engineDisplayName();
  EXPECT_TRUE(withoutServer == "surfaceless" || withoutServer == "default") << withoutServer;
  put("DISPLAY", "");
  EXPECT_EQ(engineDisplayName(), withoutServer);
  put("DISPLAY", ":7");
  EXPECT_STREQ(engineDisplayName(), "default (DISPLAY)");
  put("WAYLAND_DISPLAY", "wayland-0");
  EXPECT_STREQ(engineDisplayName(), "default (WAYLAND_DISPLAY)");
  put("EGL_PLATFORM", "x11");
  EXPECT_STREQ(engineDisplayName(), "default (EGL_PLATFORM)");
}

}  // namespace
}  // namespace noxel::platform
