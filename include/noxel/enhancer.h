/* Noxel: makes dark video watchable. The interface for programs that enhance files, streams and cameras.
 *
 *     noxel_config config;
 *     noxel_config_init(&config, sizeof config, width, height);
 *     noxel_enhancer* enhancer = NULL;
 *     if (noxel_create(&config, &enhancer) != NOXEL_OK) ...
 *     for each frame:
 *       noxel_send(enhancer, &frame);                                   // planes with strides, a tag, a time stamp
 *       while (noxel_receive(enhancer, &output, &info) == NOXEL_OK)     // planes of yours are filled
 *         use(output, info.tag);
 *     noxel_flush(enhancer);
 *     while (noxel_receive(enhancer, &output, &info) == NOXEL_OK) ...   // until NOXEL_END
 *     noxel_free(&enhancer);
 *
 * An enhancer belongs to one stream of frames of one size. It is either complete (every frame that is sent comes back, in
 * order; for files) or live (nothing ever waits, frames are dropped while the GPU is busy; for cameras).
 *
 * Call                             From which thread               At the same time as, on the same enhancer
 * -------------------------------  ------------------------------  -----------------------------------------------------
 * noxel_version[_number]           any                             any
 * noxel_query_driver               any                             any
 * noxel_error_text                 any                             any
 * noxel_settings, noxel_setting    any                             any
 * noxel_create                     any                             none: there is no enhancer before it returns
 * noxel_set, _get, _set_text       any                             any but noxel_free
 * noxel_send, _flush               one at a time                   noxel_receive, noxel_set...
 * noxel_receive, _render_texture   one at a time                   noxel_send, noxel_flush, noxel_set...
 * noxel_reset                      any                             noxel_set...; not send, flush and receive
 * noxel_free                       any                             none
 *
 * Different enhancers know nothing of each other. Calls return NOXEL_OK (0), a state above 0 or an error below 0; a failed
 * call changes nothing unless its text says so. No exception leaves the library, and it never writes to standard output or
 * error.
 */
#ifndef NOXEL_ENHANCER_H
#define NOXEL_ENHANCER_H

#include <stddef.h>
#include <stdint.h>

#if !defined(NOXEL_API)
#if defined(__GNUC__)
#define NOXEL_API __attribute__((visibility("default")))
#else
#define NOXEL_API
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** The version of this header: major * 10000 + minor * 100 + patch. A program works with every library of the same major
 *  number and at least the minor one; noxel_version_number tells the library's. */
#define NOXEL_VERSION_MAJOR 1
#define NOXEL_VERSION_MINOR 2
#define NOXEL_VERSION_PATCH 0
#define NOXEL_VERSION_NUMBER (NOXEL_VERSION_MAJOR * 10000 + NOXEL_VERSION_MINOR * 100 + NOXEL_VERSION_PATCH)

/** What calls return. */
typedef enum noxel_result {
  NOXEL_OK = 0,
  NOXEL_AGAIN = 1,             /**< send: full, receive first. receive: nothing ready, send more */
  NOXEL_END = 2,               /**< receive: flushed, and every frame has been received */
  NOXEL_DROPPED = 3,           /**< send, live: busy; this frame will not come back */
  NOXEL_ERROR_ARGUMENT = -1,   /**< a null pointer, a size, format, number or name out of range */
  NOXEL_ERROR_MEMORY = -2,     /**< memory or a thread could not be had */
  NOXEL_ERROR_NO_GL = -3,      /**< no usable OpenGL ES 3.0, or frames too large for it */
  NOXEL_ERROR_UNSUPPORTED = -4 /**< not with this configuration */
} noxel_result;

/** Layout of 8-bit planes, YUV 4:2:0 but for the last three. With odd sizes chroma planes are (width + 1) / 2 by
 *  (height + 1) / 2 samples.
 *
 *  NOXEL_PLANES_RGB and NOXEL_PLANES_BGR are one plane of 3 bytes a pixel with the codes that players show, 0..255; `range` and
 *  `matrix` are not read. They are converted to the engine's planes, BT.601 of full range, and back:
 *
 *      Y = 0.299 R + 0.587 G + 0.114 B     U = 128 + (B - Y) / 1.772     V = 128 + (R - Y) / 1.402
 *
 *  A sample of U or V is the mean of its 2 x 2 pixels, a last odd column or row counting twice. On the way back each pixel's U
 *  and V are interpolated between the four samples around it, with 9, 3, 3 and 1 sixteenths. Both ways are rounded once and
 *  clipped to 0..255; what was sent as BT.709 becomes BT.601 before, with a rounding of its own. Colours have half the picture's
 *  resolution then; where they do not change, a frame that is not enhanced comes back within one code. Frames that are YUV
 *  already are best handed in as they are. */
typedef enum noxel_format {
  NOXEL_PLANES_NV12 = 0, /**< Y; U,V pairs */
  NOXEL_PLANES_NV21 = 1, /**< Y; V,U pairs */
  NOXEL_PLANES_I420 = 2, /**< Y; U; V */
  NOXEL_PLANES_YV12 = 3, /**< Y; V; U */
  NOXEL_PLANES_RGBA = 4, /**< one plane of R,G,B,A, full range; alpha stays as it is. Mode 4, and no other */
  NOXEL_PLANES_RGB = 5,  /**< one plane of R,G,B. Not in mode 4 */
  NOXEL_PLANES_BGR = 6   /**< one plane of B,G,R. Not in mode 4 */
} noxel_format;

/** Which codes luma and chroma take. */
typedef enum noxel_range {
  NOXEL_RANGE_LIMITED = 0, /**< luma 16..235, chroma 16..240 */
  NOXEL_RANGE_FULL = 1     /**< 0..255 */
} noxel_range;

/** How luma is made of red, green and blue. */
typedef enum noxel_matrix { NOXEL_MATRIX_BT601 = 0, NOXEL_MATRIX_BT709 = 1 } noxel_matrix;

/** What the engine does with a frame. */
typedef enum noxel_mode {
  NOXEL_MODE_THREE_FRAMES = 0,     /**< the mean of three frames, sharpened */
  NOXEL_MODE_ENHANCE = 1,          /**< denoised over time, brightened by gain and gamma */
  NOXEL_MODE_STABILIZE = 2,        /**< stabilised and sharpened */
  NOXEL_MODE_NEUTRAL_EXPOSURE = 3, /**< as NOXEL_MODE_ENHANCE, not brightened */
  NOXEL_MODE_PICTURE = 4,          /**< detail and contrast of single pictures, NOXEL_PLANES_RGBA only */
  NOXEL_MODE_CLEAR = 5             /**< the clear picture: the best one, and the default */
} noxel_mode;

typedef enum noxel_quality {
  NOXEL_QUALITY_FAST = 0,
  NOXEL_QUALITY_BALANCED = 1,
  NOXEL_QUALITY_BEST = 2 /**< looks ahead by up to 28 frames, so frames come back later; as balanced when live */
} noxel_quality;

typedef enum noxel_delivery {
  NOXEL_COMPLETE = 0, /**< each frame comes back, in order */
  NOXEL_LIVE = 1      /**< no call waits for the GPU; frames may be dropped */
} noxel_delivery;

/** What is kept of each frame for noxel_tracks, noxel_history and noxel_passes; costs some time. */
typedef enum noxel_diagnostics {
  NOXEL_DIAGNOSE_TRACKS = 1,
  NOXEL_DIAGNOSE_HISTORY = 2, /**< waits for the GPU once more a frame; modes 1, 3 and 5 */
  NOXEL_DIAGNOSE_PASSES = 4   /**< waits for each pass */
} noxel_diagnostics;

/** Priorities of log lines. */
typedef enum noxel_log_level {
  NOXEL_LOG_INFORMATION = 4,
  NOXEL_LOG_WARNING = 5,
  NOXEL_LOG_FAILURE = 6
} noxel_log_level;

/** Receives the enhancer's log, one line a call without a newline. Called from any of its threads and from callers' threads
 *  inside calls, one call at a time per enhancer; it must not call the enhancer. */
typedef void (*noxel_log_function)(void* context, int level, const char* message);

/** An enhancer; opaque. Made by noxel_create, freed by noxel_free. */
typedef struct noxel_enhancer noxel_enhancer;

/** How an enhancer is made. Filled with defaults by noxel_config_init; it and what it points at are read by noxel_create
 *  only, and stay the caller's. */
typedef struct noxel_config {
  size_t size;  /**< of this structure, as the program was compiled */
  int width;    /**< of a frame, in pixels; from 1 */
  int height;   /**< as width */
  int mode;     /**< noxel_mode; NOXEL_MODE_CLEAR */
  int quality;  /**< noxel_quality; balanced. The setting "quality" changes it later */
  int delivery; /**< noxel_delivery; complete */

  /** Usual time between frames, microseconds, by which cuts are told from slow clips. 0: taken from the frames' times. */
  int64_t frame_interval_us;
  /** Complete: 1 (default) shows a sequence's first frame the 15 that follow, so that it comes back as clean as the others
   *  and by that much later. 0: no frame waits for a later one. */
  int lead_in;

  noxel_log_function log; /**< null (default): nothing is logged */
  void* log_context;
  /** Where compiled shader programs are kept; made if its parent is there. Other processes may use the same one. Null
   *  (default): they are compiled each time. */
  const char* cache_directory;
  /** Native window to draw into instead of handing frames back, as of Noxel_InitializeWithWindow. Live only; it must
   *  outlive the enhancer. Null (default). */
  void* window;
  /** EGLDisplay and EGLContext whose textures noxel_render_texture draws into. Null (default). */
  void* share_display;
  void* share_context;
  unsigned diagnostics; /**< noxel_diagnostics, or-ed; 0 (default) */
} noxel_config;

/** A frame's planes, and what travels with it. */
typedef struct noxel_frame {
  size_t size;              /**< of this structure; noxel_frame_init sets it */
  int format;               /**< noxel_format */
  int range;                /**< noxel_range; of YUV */
  int matrix;               /**< noxel_matrix; of YUV */
  unsigned char* planes[3]; /**< first rows, in the format's order; two for NV12 and NV21, one for RGB */
  ptrdiff_t strides[3];     /**< bytes from a row to the next, at least a row's; may be negative */
  uint64_t tag;             /**< the caller's: comes back in noxel_frame_info */
  /** Presentation time, microseconds. A step back, or a gap of more than five usual intervals or of more than 1 s and two of
   *  them, starts a new sequence. */
  int64_t time_us;
} noxel_frame;

/** What is known of a frame that comes back. Matrices are 3 x 3, row-major, in pixels of the frame, whose first pixel's
 *  centre is at (0.5, 0.5). Noise: variance in squared levels of full range, 32 entries of 8 levels of luma each. */
typedef struct noxel_frame_info {
  size_t size; /**< of this structure; noxel_frame_info_init sets it */
  uint64_t tag;
  int64_t time_us;
  int enhanced;                     /**< 0: the frame came back as it went in */
  int motion_known;                 /**< 0: first of a sequence, each frame by itself, or it could not be told */
  int starts_sequence;              /**< 1: measured against no frame before it */
  int points_tracked;               /**< 0 where no motion is measured */
  int points_kept;                  /**< of them, what the motion was fitted to */
  float previous_from_current[9];   /**< motion: pixel of this frame to pixel of the one before */
  float stabilized_from_current[9]; /**< stabilisation, before the zoom */
  float zoom;
  float gamma; /**< of the tone step of mode 1, else 1 */
  float gain;  /**< the same */
  int noise_known;
  float noise_luma[32];
  float noise_blue[32]; /**< of U, by luma */
  float noise_red[32];  /**< of V */
  float tone[256];      /**< mode 5: by full-range luma in, luma out */
  double upload_ms;     /**< of the GPU thread: planes to textures */
  double motion_ms;     /**< motion, noise and exposure */
  double gpu_ms;        /**< of the GPU thread, from taking the frame to its delivery */
  double total_ms;      /**< from noxel_send to the moment when it was ready */
} noxel_frame_info;

/** Kinds of settings. */
typedef enum noxel_setting_type {
  NOXEL_SETTING_INT = 0,
  NOXEL_SETTING_FLOAT,
  NOXEL_SETTING_BOOL,
  NOXEL_SETTING_CHOICE
} noxel_setting_type;

/** Numbers of settings, with their names. They stay; new ones are added at the end. */
typedef enum noxel_setting_id {
  NOXEL_STRENGTH = 0,   /**< "strength": how much noise is taken out, 0..100 */
  NOXEL_QUALITY = 1,    /**< "quality": noxel_quality */
  NOXEL_EXPOSURE = 2,   /**< "exposure": how far dark pictures are brightened, 0..100 */
  NOXEL_STABILIZE = 3,  /**< "stabilize": takes the camera's shake out, at the price of the picture's edges */
  NOXEL_ZOOM = 4,       /**< "zoom": 1..32 */
  NOXEL_PER_FRAME = 5,  /**< "per-frame": each frame by itself, without those before it */
  NOXEL_SHARPENING = 6, /**< "sharpening": 0..100, modes 0, 2 and 4 */
  NOXEL_CONTRAST = 7,   /**< "contrast": 0..100, modes 0, 2 and 4 */
  NOXEL_DEGHOSTING = 8, /**< "deghosting": 0..10, modes 1 and 3 */
  NOXEL_FLIP_CHROMA = 9 /**< "flip-chroma": U and V change places; modes 0 and 2 */
} noxel_setting_id;

/** One setting as the library describes it, so that menus and command lines can be made from it. */
typedef struct noxel_setting_info {
  int id;                  /**< noxel_setting_id */
  const char* name;        /**< lower case, words joined by '-' */
  const char* description; /**< one sentence, English */
  int type;                /**< noxel_setting_type */
  double minimum;
  double maximum;
  double initial;             /**< in mode 5 */
  const char* const* choices; /**< NOXEL_SETTING_CHOICE: names of minimum..maximum; else null */
  unsigned modes;             /**< bit m is set: mode m reads it */
} noxel_setting_info;

/** The library's version text, as "1.2.0". Any thread; the library's, never freed. */
NOXEL_API const char* noxel_version(void);

/** The library's version as NOXEL_VERSION_NUMBER. */
NOXEL_API int noxel_version_number(void);

/** The driver that enhancers use. Texts are the driver's own. */
typedef struct noxel_driver {
  size_t size; /**< of this structure; set it before the call */
  const char*
      display; /**< how the EGL display is chosen, as "surfaceless" or "default (DISPLAY)"; the library's, always set */
  char egl_vendor[256]; /**< empty, as the next, without a usable OpenGL ES 3.0 */
  char egl_version[256];
  char gl_vendor[256];
  char gl_renderer[256];
  char gl_version[256];
  int keeps_programs; /**< 0: compiled programs cannot be kept in a cache directory */
} noxel_driver;

/** Asks the driver, with a context that is gone when the call returns. The log says why where there is none.
 *
 *  log  may be null
 *
 *  NOXEL_OK; NOXEL_ERROR_NO_GL: nothing usable, and only `display` is known; NOXEL_ERROR_ARGUMENT: null, or a size that is not
 *  of this structure. Any thread that has no context current.
 */
NOXEL_API int noxel_query_driver(noxel_driver* driver, noxel_log_function log, void* log_context);

/** What a result means, in English; for any number. Any thread; the library's, never freed. */
NOXEL_API const char* noxel_error_text(int result);

/** All settings, by number. *count receives how many; may be null. Any thread; the library's, never freed. */
NOXEL_API const noxel_setting_info* noxel_settings(size_t* count);

/** A setting by name; null: there is none of that name. */
NOXEL_API const noxel_setting_info* noxel_setting(const char* name);

/** Fills a configuration with defaults. size: sizeof(noxel_config). NOXEL_OK or NOXEL_ERROR_ARGUMENT. */
NOXEL_API int noxel_config_init(noxel_config* config, size_t size, int width, int height);

/** Fills a frame with zeroes and its size. */
NOXEL_API int noxel_frame_init(noxel_frame* frame, size_t size);

/** Fills the info with zeroes and its size. */
NOXEL_API int noxel_frame_info_init(noxel_frame_info* info, size_t size);

/** Makes an enhancer.
 *
 *  enhancer  receives it; untouched on failure.
 *
 *  NOXEL_OK
 *  NOXEL_ERROR_ARGUMENT     a null pointer, a size below 1 or too large, an unknown mode, quality or delivery
 *  NOXEL_ERROR_UNSUPPORTED  a window and complete, or a shared context that is not on the display
 *  NOXEL_ERROR_NO_GL        no usable OpenGL ES 3.0 for frames of this size; the log says why
 *  NOXEL_ERROR_MEMORY
 *
 *  Ownership: the caller's until noxel_free.
 *  Threads:   any; starts threads that live until noxel_free.
 *  Time:      a GL context and some twenty programs: tens to hundreds of milliseconds, seconds where nothing is cached.
 */
NOXEL_API int noxel_create(const noxel_config* config, noxel_enhancer** enhancer);

/** Stops and frees an enhancer and whatever it holds; sets *enhancer to null. Null, or a pointer to null, is fine. Waits for
 *  the frame in the GPU. */
NOXEL_API void noxel_free(noxel_enhancer** enhancer);

/** Sets a setting, for frames sent from now on. NOXEL_ERROR_ARGUMENT: unknown number, or a value out of its range or, where
 *  the setting is not a float, not whole; nothing is changed. */
NOXEL_API int noxel_set(noxel_enhancer* enhancer, int setting, double value);

/** The same by name, with the value as text: a number, true or false, or the name of a choice. */
NOXEL_API int noxel_set_text(noxel_enhancer* enhancer, const char* name, const char* value);

/** What was set last. */
NOXEL_API int noxel_get(const noxel_enhancer* enhancer, int setting, double* value);

/** Hands in a frame.
 *
 *  frame  its planes are copied before the call returns, and never written.
 *
 *  NOXEL_OK
 *  NOXEL_AGAIN           complete: as many frames are waiting as it holds; receive first, then send this one again
 *  NOXEL_DROPPED         live: the one before is not begun yet
 *  NOXEL_ERROR_ARGUMENT  a null pointer, an unknown format, range or matrix, a stride shorter than a row
 *  NOXEL_ERROR_MEMORY    room for it could not be had; sending it again may succeed
 *
 *  Ownership: the planes stay the caller's.
 *  Time:      a copy of the frame. Never waits for the GPU.
 */
NOXEL_API int noxel_send(noxel_enhancer* enhancer, const noxel_frame* frame);

/** Takes the next enhanced frame.
 *
 *  frame  format, range, matrix, planes and strides say where and how it is to be written, whatever was sent; may be the planes
 *         that were sent. Tag and time are set. Null: the frame is dropped, only the info is wanted. With a window the planes
 *         are not written
 *  info   receives what is known of it; may be null
 *
 *  NOXEL_OK
 *  NOXEL_AGAIN           more frames are needed first, or live: none is ready
 *  NOXEL_END             after noxel_flush: there are no more; the next noxel_send begins a new sequence
 *  NOXEL_ERROR_ARGUMENT  as of noxel_send; the frame stays and can be received again
 *
 *  Time: complete: waits for the frame in the GPU if enough frames were sent. Live: a copy of the frame.
 */
NOXEL_API int noxel_receive(noxel_enhancer* enhancer, noxel_frame* frame, noxel_frame_info* info);

/** No more frames come: those that wait for a later one are enhanced without it. Then noxel_receive until NOXEL_END. */
NOXEL_API int noxel_flush(noxel_enhancer* enhancer);

/** Forgets all frames that were sent and not received, and everything known from earlier ones: after a seek. Waits for the
 *  frame in the GPU. Settings stay. */
NOXEL_API int noxel_reset(noxel_enhancer* enhancer);

/** How many frames noxel_send takes before the first comes back, and so the latency in frames: 0 without lead-in and look
 *  ahead. Negative: an error. */
NOXEL_API int noxel_latency_frames(const noxel_enhancer* enhancer);

/** Takes the next enhanced frame as noxel_receive does, but draws it into an RGBA texture of the context that the enhancer
 *  shares: upright for a texture coordinate of (0, 0) at the top left, opaque.
 *
 *  texture        a GL_TEXTURE_2D of that context, GL_RGBA8, `width` x `height`; drawn over whole
 *
 *  As noxel_receive; NOXEL_ERROR_UNSUPPORTED: no context is shared. NOXEL_ERROR_ARGUMENT also where GL cannot draw into the
 *  texture; the frame is gone then. The drawing has ended when the call returns, so any
 *  context of the share group may use the texture at once. The caller needs no context current.
 */
NOXEL_API int noxel_render_texture(noxel_enhancer* enhancer, unsigned texture, int width, int height,
                                   noxel_frame_info* info);

/** Where the picture is drawn: corners x, y of top left, bottom left, top right, bottom right; -1..1, y up. Default: everywhere,
 *  and nowhere for the picture as it came. For a comparison beside each other; modes 0 to 3, and 5 with a window. */
typedef enum noxel_picture { NOXEL_PICTURE_ENHANCED = 0, NOXEL_PICTURE_AS_IT_CAME = 1 } noxel_picture;

/** Sets a picture's corners from the next frame that is enhanced on; null: it is not drawn. NOXEL_ERROR_ARGUMENT: unknown
 *  picture, or a corner that is no finite number. */
NOXEL_API int noxel_set_corners(noxel_enhancer* enhancer, int picture, const float* corners);

/** How something moved, in pixels of the frame. */
typedef struct noxel_track {
  float from_x, from_y; /**< in the frame before */
  float to_x, to_y;     /**< in this one */
} noxel_track;

/** Of the frame received last: pairs on its common motion, and the blocks that moved on their own. Without
 *  NOXEL_DIAGNOSE_TRACKS there are none.
 *
 *  own       0: of the common motion; 1: on their own, mode 5
 *  tracks    receives up to `capacity` of them; may be null where that is 0
 *
 *  How many there are, or NOXEL_ERROR_ARGUMENT. For this call and the next two: threads as noxel_receive.
 */
NOXEL_API int noxel_tracks(const noxel_enhancer* enhancer, int own, noxel_track* tracks, int capacity);

/** Of the frame received last: how far the frame alone makes the picture, 255, or its history as much as the strength asks for,
 *  0. Over the picture; in mode 5 over the frame before stabilisation and zoom.
 *
 *  levels  receives *width x *height bytes if `capacity` is enough; may be null where that is 0
 *
 *  NOXEL_OK; NOXEL_AGAIN: none is known of this frame, or it was not asked for; NOXEL_ERROR_ARGUMENT: a null pointer, or too
 *  small: *width and *height are told.
 */
NOXEL_API int noxel_history(const noxel_enhancer* enhancer, unsigned char* levels, size_t capacity, int* width,
                            int* height);

/** Of the frame received last: what the GPU drew, in this order, and how long each took.
 *
 *  index          from 0
 *  name           receives the pass's name, the library's
 *  nanoseconds    0: not known
 *
 *  NOXEL_OK; NOXEL_END: there are fewer, or NOXEL_DIAGNOSE_PASSES was not asked for.
 */
NOXEL_API int noxel_pass(const noxel_enhancer* enhancer, int index, const char** name, uint64_t* nanoseconds);

#ifdef __cplusplus
}
#endif

#endif /* NOXEL_ENHANCER_H */
