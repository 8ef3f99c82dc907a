/* Noxel: makes dark video watchable while it is being filmed.
 *
 * One engine per video stream. The application hands in one YUV 4:2:0 frame at a time and gets it back denoised, brightened
 * and, if asked, stabilised, in the same buffer and layout.
 *
 * Call                          From which thread            At the same time as, on the same engine
 * ----------------------------  ---------------------------  ------------------------------------------------------------
 * Noxel_GetVersion              any                          any
 * Noxel_Initialize[WithWindow]  any                          none: there is no engine before it returns
 * Noxel_SetParameter            any                          any but Noxel_Initialize
 * Noxel_ProcessFrame            one at a time per engine     Noxel_SetParameter, Noxel_Release (the frame then comes back
 *                                                            unenhanced)
 * Noxel_Release                 any                          Noxel_SetParameter, Noxel_ProcessFrame
 *
 * Different engines may be used at the same time. Failures are reported by the return value and, with the reason, in the
 * log under the tags "Korvane" and "KorvaneEGLEngine". No exception leaves the library.
 */
#ifndef NOXEL_NOXEL_H
#define NOXEL_NOXEL_H

#include <stdint.h>

#if defined(__GNUC__)
#define NOXEL_API __attribute__((visibility("default")))
#else
#define NOXEL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** An engine; opaque. Made by Noxel_Initialize or Noxel_InitializeWithWindow, freed by Noxel_Release. */
typedef struct _KRSuperResEngine _KRSuperResEngine;

/** Parameter ids of Noxel_SetParameter. Each value is one int. */
enum {
  NOXEL_PARAMETER_STABILIZATION = 0,   /**< 0 off (default), else on; light mode 0 only */
  NOXEL_PARAMETER_NOISE_REDUCTION = 1, /**< strength, 0..100, default 65; stored as given, clamped where it is used */
  NOXEL_PARAMETER_LIGHT_MODE = 2,      /**< 1 each frame by itself (default), 0 consecutive frames blended */
  NOXEL_PARAMETER_IMAGE_FORMAT = 3,    /**< NOXEL_FORMAT_NV21 (default) or NOXEL_FORMAT_YV12 */
  NOXEL_PARAMETER_EXPOSURE = 4         /**< max. brightening of dark pictures, 0..100, default 50; clamped */
};

/** Frame layouts, by Android's image-format codes. No row padding; width * height luma bytes come first. */
enum {
  NOXEL_FORMAT_NV21 = 17,        /**< then V,U pairs */
  NOXEL_FORMAT_YV12 = 0x32315659 /**< then the V plane, then the U plane, each a quarter of the luma plane's size */
};

/** The library's version and build time: "Version: 1.2.3, Build date: Nov 21 2026 10:30:00".
 *
 *  Never null. The same buffer on every call.
 *
 *  Ownership: the library's; it lives as long as the library is loaded.
 *  Threads:   any.
 *  Time:      a string copy.
 */
NOXEL_API const char* Noxel_GetVersion(void);

/** Makes an engine that renders off-screen: each enhanced frame comes back in the buffer given to Noxel_ProcessFrame.
 *
 *  width, height  frame size in pixels, each at least 1, with width * height * 4 within an int. To be enhanced, frames need a
 *                 width that is a multiple of 4 and an even height, both within the driver's limits (usually 16384).
 *  handle         receives the engine; untouched on failure.
 *
 *  0  the engine is ready. This includes an engine without a usable OpenGL ES 3.0 or for other frame sizes: it logs the
 *     reason and returns each frame as it came.
 *  1  null handle, size out of range, no memory, or a thread could not be started.
 *
 *  Ownership: the engine is the caller's until Noxel_Release.
 *  Threads:   any; starts threads that live until Noxel_Release.
 *  Time:      creates a GL context and loads or compiles about twenty programs: tens to hundreds of milliseconds.
 */
NOXEL_API int Noxel_Initialize(int width, int height, _KRSuperResEngine** handle);

/** As Noxel_Initialize, but renders into a window.
 *
 *  width, height  any size within the driver's limits: with a window nothing is read back.
 *  window  an ANativeWindow; on Linux with X11 the id of a Window on the display that DISPLAY names, cast to a pointer;
 *          elsewhere the EGL platform's native window; or null: same as Noxel_Initialize. Frames are shown upright and fill
 *          the window, also after a resize; the buffers given to Noxel_ProcessFrame are not changed.
 *
 *  0, 1  as Noxel_Initialize.
 *
 *  Ownership: the window stays the caller's and must outlive the engine.
 *  Threads:   any; no other thread may have a context current on the window.
 *  Time:      as Noxel_Initialize.
 */
NOXEL_API int Noxel_InitializeWithWindow(int width, int height, void* window, _KRSuperResEngine** handle);

/** Sets one parameter; the next frame uses it.
 *
 *  id      a NOXEL_PARAMETER_ id.
 *  value   one int, read before the call returns; must not be null. The ids above list the ranges. A value out of range is
 *          stored as given, except that the exposure is clamped.
 *
 *  0  stored
 *  1  unknown id, no engine, or an engine not initialised or already released
 *
 *  Ownership: the value stays the caller's.
 *  Threads:   any, also while a frame is being processed.
 *  Time:      one store under a short lock.
 */
NOXEL_API int Noxel_SetParameter(unsigned id, void* value, _KRSuperResEngine* engine);

/** Enhances one camera frame in place.
 *
 *  frame   width * height * 3/2 bytes in the current image format (NV21: Y, then V,U pairs; YV12: Y, V, U), no row padding.
 *          Off-screen it holds an enhanced frame on return: the newest one finished, usually that of an earlier call.
 *          It holds the caller's own frame unchanged at the start, after a break of the sequence (a gap of more than 1500 ms,
 *          or of more than 200 ms once two frames are in) and after a change of the light mode, until the first frame
 *          enhanced since then is ready; and for good once the GPU context is lost, which is logged. With a window, or with
 *          an unknown image format, the buffer is left as it came.
 *
 *  0  accepted (also when the ring was full and this frame will not be enhanced)
 *  1  no engine, an engine not initialised or already released, or a null frame; the buffer is untouched
 *
 *  Ownership: the buffer stays the caller's; no pointer is kept past return.
 *  Threads:   one thread at a time per engine; Noxel_SetParameter may run beside it.
 *  Time:      two copies of the frame; never waits for the GPU.
 */
NOXEL_API int Noxel_ProcessFrame(unsigned char* frame, _KRSuperResEngine* engine);

/** Stops an engine's threads, waits for calls that still use it, and frees it.
 *
 *  handle  points to the engine. The value is not changed. Every call refuses it until 64 more engines have been released;
 *          after that a new engine may get the same address.
 *
 *  0  released
 *  1  null handle, null engine, or an engine that was already released
 *
 *  Ownership: the engine's threads and GL objects are gone on return. After the last engine the library may be unloaded.
 *  Threads:   any.
 *  Time:      up to the frame in flight.
 */
NOXEL_API int Noxel_Release(_KRSuperResEngine** handle);

/** A time span in nanoseconds of CLOCK_MONOTONIC_RAW; stop 0 means that it is still running. */
typedef struct KRTimer {
  uint64_t start;
  uint64_t stop;
} KRTimer;

/** Nanoseconds of the raw monotonic clock. Any thread. */
NOXEL_API uint64_t KRTimeNow(void);
/** The absolute difference of two times, in nanoseconds. Any thread. */
NOXEL_API uint64_t KRTimeDiff(uint64_t a, uint64_t b);
/** Starts or restarts the timer. For this call and the next three: the timer is the caller's; one thread at a time. */
NOXEL_API void KRTimerStart(KRTimer* timer);
/** Ends the span. */
NOXEL_API void KRTimerStop(KRTimer* timer);
/** Sets start and stop to 0: the timer then runs from time 0. */
NOXEL_API void KRTimerReset(KRTimer* timer);
/** Nanoseconds from start to stop, or to now while it runs. */
NOXEL_API uint64_t KRTimerElapsed(const KRTimer* timer);

/** Stopwatches around the stages of the frame path, for profiling builds. In this build they do nothing and return 0. Any
 *  thread. */
NOXEL_API void startWatch(int id);
NOXEL_API int64_t stopWatch(const char* name, int id);
NOXEL_API int64_t pauseWatch(void);
NOXEL_API void resetWatches(void);

#ifdef __cplusplus
}
#endif

#endif /* NOXEL_NOXEL_H */
