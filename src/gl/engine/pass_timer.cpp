#include "gl/engine/pass_timer.h"

#include <chrono>

namespace noxel {
namespace {

constexpr GLenum kTimeElapsed = 0x88BF;  // GL_TIME_ELAPSED_EXT
constexpr GLenum kGpuDisjoint = 0x8FBB;  // GL_GPU_DISJOINT_EXT

uint64_t now() {
  const auto sinceEpoch = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count());
}

}  // namespace

PassTimer::~PassTimer() {
  if (queries[0] != 0) glDeleteQueries(kMaxPasses, queries);
}

void PassTimer::setUp(EGLEngine* egl) {
  hasQueries = egl->HasGLExtension("GL_EXT_disjoint_timer_query") == 1;
}

void PassTimer::beginFrame(PassObserver frameObserver, void* observerContext) {
  observer = frameObserver;
  context = observerContext;
  count = 0;
  if (observer == nullptr || !hasQueries) return;
  if (queries[0] == 0) glGenQueries(kMaxPasses, queries);
  GLint disjoint = 0;
  glGetIntegerv(kGpuDisjoint, &disjoint);  // asking clears it
}

void PassTimer::begin(const char* pass) {
  if (!isTiming()) return;
  names[count] = pass;
  if (hasQueries) {
    glBeginQuery(kTimeElapsed, queries[count]);
  } else {
    glFinish();
    start = now();
  }
}

void PassTimer::end() {
  if (!isTiming()) return;
  if (hasQueries) {
    glEndQuery(kTimeElapsed);
  } else {
    glFinish();
    nanoseconds[count] = now() - start;
  }
  ++count;
}

void PassTimer::report() {
  if (observer == nullptr) return;
  if (hasQueries) {
    for (int i = 0; i < count; ++i) {
      GLuint elapsed = 0;  // a pass of more than four seconds wraps
      glGetQueryObjectuiv(queries[i], GL_QUERY_RESULT, &elapsed);
      nanoseconds[i] = elapsed;
    }
    GLint disjoint = 0;  // the clock changed meanwhile: the figures mean nothing, the names do
    glGetIntegerv(kGpuDisjoint, &disjoint);
    for (int i = 0; disjoint != 0 && i < count; ++i) nanoseconds[i] = 0;
  }
  for (int i = 0; i < count; ++i) observer(context, names[i], nanoseconds[i]);
  observer = nullptr;
}

}  // namespace noxel
