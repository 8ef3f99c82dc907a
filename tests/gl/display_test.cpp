// The EGL display is shared with whoever else uses EGL in the process.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "gl/runtime/egl_engine.h"
#include "gl/runtime/gl.h"
#include "support/driver_required.h"
#include "support/log_capture.h"

namespace {

// An EGL with EGL_KHR_display_reference, which Mesa's is not: counted displays are asked for, and tell so.
bool countingEgl = false;
bool countingAskedFor = false;
std::vector<std::string> calls;  // those that give something back, in order

EGLBoolean queryDisplayAttribute(EGLDisplay, EGLint, EGLAttrib* value) {
  *value = EGL_TRUE;
  return EGL_TRUE;
}

}  // namespace

extern "C" {
using EglFunction = void (*)();
const char* __real_eglQueryString(EGLDisplay, EGLint);
EglFunction __real_eglGetProcAddress(const char*);
EGLBoolean __real_eglTerminate(EGLDisplay);
EGLBoolean __real_eglDestroyContext(EGLDisplay, EGLContext);
EGLBoolean __real_eglReleaseThread();

EGLDisplay countedDisplay(EGLenum platform, void* native, const EGLint* attributes) {
  countingAskedFor = attributes != nullptr && attributes[0] == EGL_TRACK_REFERENCES_KHR && attributes[1] == EGL_TRUE;
  const auto real = reinterpret_cast<EGLDisplay (*)(EGLenum, void*, const EGLint*)>(
      __real_eglGetProcAddress("eglGetPlatformDisplayEXT"));
  return real(platform, native, nullptr);
}

const char* __wrap_eglQueryString(EGLDisplay display, EGLint name) {
  const char* real = __real_eglQueryString(display, name);
  if (!countingEgl || display != EGL_NO_DISPLAY || real == nullptr) return real;
  static std::string extensions;
  extensions = std::string(real) + " EGL_KHR_display_reference";
  return extensions.c_str();
}

EglFunction __wrap_eglGetProcAddress(const char* name) {
  if (countingEgl && std::strcmp(name, "eglGetPlatformDisplayEXT") == 0) {
    return reinterpret_cast<EglFunction>(countedDisplay);
  }
  if (countingEgl && std::strcmp(name, "eglQueryDisplayAttribKHR") == 0) {
    return reinterpret_cast<EglFunction>(queryDisplayAttribute);
  }
  return __real_eglGetProcAddress(name);
}

// One user less, as it would be on such a display.
EGLBoolean __wrap_eglTerminate(EGLDisplay display) {
  calls.push_back("eglTerminate");
  return countingEgl ? EGL_TRUE : __real_eglTerminate(display);
}

EGLBoolean __wrap_eglDestroyContext(EGLDisplay display, EGLContext context) {
  calls.push_back("eglDestroyContext");
  return __real_eglDestroyContext(display, context);
}

EGLBoolean __wrap_eglReleaseThread() {
  calls.push_back("eglReleaseThread");
  return __real_eglReleaseThread();
}
}

namespace noxel {
namespace {

// An engine's life, on a thread of its own as in the library. False without a driver.
bool engineComesAndGoes() {
  const LogCapture quiet;
  bool usable = false;
  std::thread([&usable] {
    EGLEngine egl;
    usable = egl.Initialize(1, 1) == 1;
    egl.Release();
  }).join();
  return usable;
}

class SharedDisplay : public testing::Test {
 protected:
  void SetUp() override {
    if (engineComesAndGoes()) return;
    ASSERT_FALSE(driverRequired());
    GTEST_SKIP() << "no OpenGL ES 3.0 here";
  }
};

// Another library of the process, with a context that is current on the calling thread.
class OtherUser {
 public:
  OtherUser() : display(platform::engineDisplay()) {
    eglInitialize(display, nullptr, nullptr);
    EGLConfig config = nullptr;
    EGLint count = 0;
    const EGLint wanted[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT, EGL_NONE};
    eglChooseConfig(display, wanted, &config, 1, &count);
    const EGLint size[] = {EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_NONE};
    surface = eglCreatePbufferSurface(display, config, size);
    const EGLint version[] = {EGL_CONTEXT_CLIENT_VERSION, 3, EGL_NONE};
    context = eglCreateContext(display, config, EGL_NO_CONTEXT, version);
    eglMakeCurrent(display, surface, surface, context);
  }
  ~OtherUser() {
    eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    eglDestroySurface(display, surface);
    eglDestroyContext(display, context);
  }
  OtherUser(const OtherUser&) = delete;
  OtherUser& operator=(const OtherUser&) = delete;

  bool draws() const {
    return eglMakeCurrent(display, surface, surface, context) == EGL_TRUE && glGetString(GL_VERSION) != nullptr;
  }

 private:
  const EGLDisplay display;
  EGLSurface surface = EGL_NO_SURFACE;
  EGLContext context = EGL_NO_CONTEXT;
};

TEST_F(SharedDisplay, AnotherUserKeepsItsContextWhenTheLastEngineGoes) {
  const OtherUser other;
  ASSERT_TRUE(other.draws());
  ASSERT_TRUE(engineComesAndGoes());
  EXPECT_TRUE(other.draws()) << "it was there before the engine";

  EGLEngine engine;
  {
    const LogCapture quiet;
    ASSERT_EQ(engine.Initialize(1, 1), 1);
  }
  const OtherUser later;
  engine.Release();
  EXPECT_TRUE(later.draws()) << "it came while the engine lived";
}

TEST_F(SharedDisplay, IsTerminatedByEachEngineWhereEglCountsAndByNoneElsewhere) {
  for (const bool counting : {false, true}) {
    countingEgl = counting;
    calls.clear();
    engineComesAndGoes();
    countingEgl = false;
    const std::vector<std::string> counted = {"eglDestroyContext", "eglTerminate", "eglReleaseThread"};
    EXPECT_EQ(calls, counting ? counted : (std::vector<std::string>{"eglDestroyContext", "eglReleaseThread"}));
    if (std::string(platform::engineDisplayName()) == "surfaceless") {
      EXPECT_EQ(countingAskedFor, counting);
    }
  }
}

}  // namespace
}  // namespace noxel
