// The EGL display, surface and OpenGL ES 3.0 context that one engine renders with.
#pragma once

#include "platform/egl_display.h"

namespace noxel {

// Everything here runs on the GPU thread, where the context is current from Initialize to Release. A failed call is logged
// under the tag "KorvaneEGLEngine" and answered with 0; Initialize may leave parts behind, which Release cleans up. Owns
// neither the window nor the shared context.
//
// The display is the process's and may have other users, whose contexts eglTerminate would end. Release calls it where EGL
// counts the users of a display, and leaves the display initialised otherwise.
class EGLEngine {
 public:
  EGLEngine() = default;
  ~EGLEngine() { Release(); }
  EGLEngine(const EGLEngine&) = delete;
  EGLEngine& operator=(const EGLEngine&) = delete;

  // 1 on success, 0 on failure. Without a window the surface is a 1 x 1 pbuffer whatever the size: it only makes the context
  // current, the images live in framebuffer objects. alphaSize: bits of the window's alpha channel, none where the window has none.
  int Initialize(int width, int height, void* window = nullptr, void* shareContext = nullptr, int alphaSize = 8);
  int initWithWindow(int width, int height, void* window, void* shareContext, int alphaSize);
  int initWithPBuffer(int width, int height, void* shareContext);
  int Release();  // always 1; the thread has no EGL state left

  EGLBoolean SwapBuffers();
  EGLBoolean SwapBuffers(void* otherSurface);
  EGLBoolean SetSwapInterval(int interval);
  // Of the surface as it is now, in pixels; leaves them as they are when that cannot be told.
  void GetSurfaceSize(int* width, int* height);
  EGLint MakeCurrent(void* draw, void* read);  // EGL_SUCCESS, or the error, which was logged
  void* CreateWindowSurface(void* window);     // may be null
  EGLBoolean DestroySurface(void* otherSurface);

  // Ask for the strings a person would want to see in a debugger; nothing is printed.
  void PrintGLInfo();
  void PrintEGLInfo();

  // 1 when `name` is one whole word of GL_EXTENSIONS.
  int HasGLExtension(const char* name);

  // Each answers 0 (or null) without a call when the driver lacks the entry point; the sync calls when `syncSupported` is
  // false too.
  void* CreateImage(unsigned target, void* buffer, const int* attributes);
  int DestroyImage(void* image);
  void* CreateSync(unsigned type, const int* attributes);
  int ClientWaitSync(void* sync, int flags, uint64_t timeoutNs);
  int DestroySync(void* sync);
  int SetPresentationTime(void* otherSurface, int64_t nanoseconds);

  EGLDisplay sharedDisplay =
      EGL_NO_DISPLAY;  // the caller's, initialised: used instead of the process's, and left alone
  EGLDisplay display = EGL_NO_DISPLAY;
  EGLSurface surface = EGL_NO_SURFACE;
  EGLContext context = EGL_NO_CONTEXT;
  EGLConfig config = nullptr;
  bool contextLost = false;    // by the last call of a frame that failed
  bool syncSupported = false;  // what the GL extension string says, whether or not the EGL entry points were found
  int syncKind = 0;            // 0 no fence extension, 1 GL_OES_EGL_sync, 2 GL_NV_fence
  PFNEGLCREATEIMAGEKHRPROC createImage = nullptr;
  PFNEGLDESTROYIMAGEKHRPROC destroyImage = nullptr;
  PFNEGLCREATESYNCKHRPROC createSync = nullptr;
  PFNEGLCLIENTWAITSYNCKHRPROC clientWaitSync = nullptr;
  PFNEGLDESTROYSYNCKHRPROC destroySync = nullptr;
  PFNEGLPRESENTATIONTIMEANDROIDPROC presentationTime = nullptr;

 private:
  int openDisplay();
  int createSurface(void* window, int alphaSize);  // and the config; a pbuffer without a window
  int createContext(void* shareContext);           // current from here on
  void loadExtensions();
  void leaveDisplay();
  void tellOnce(bool* fails, bool success, const char* call);  // a call of every frame that fails from now on

  bool released = false;
  bool displayInitialized = false;
  bool swapFails = false;
  bool queryFails = false;
};

}  // namespace noxel
