/* noxelenhance: an enhancer of libnoxel as a video filter.
 *
 * Frames come back later than they go in, which GstVideoFilter (one buffer out for each one in) does not allow.
 * GstBaseTransform does, by submit_input_buffer and generate_output, and still handles caps, pools, segments and QoS.
 *
 * What a frame carries (times, flags, metas) waits in `pending` while the library has its planes; the library's tag
 * says which is whose. Input buffers are not kept: that would starve the pool of a camera or a decoder.
 */
#include "noxel_enhance.h"

#include <gst/base/gstqueuearray.h>
#include <gst/video/gstvideometa.h>
#include <gst/video/gstvideopool.h>
#include <gst/video/video.h>

#include "noxel/enhancer.h"
#include "noxel_properties.h"

GST_DEBUG_CATEGORY_STATIC(noxel_enhance_debug);
#define GST_CAT_DEFAULT noxel_enhance_debug

#define CAPS GST_VIDEO_CAPS_MAKE("{ NV12, NV21, I420, YV12 }")

static GstStaticPadTemplate sink_template =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(CAPS));
static GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(CAPS));

/* A frame or a serialised event that came in and has not gone out yet. */
typedef struct {
  guint64 tag;      /* of a frame */
  GstBuffer* frame; /* without memory; null: an event */
  GstEvent* event;
} Pending;

struct _GstNoxelEnhance {
  GstBaseTransform parent;

  /* The streaming thread's. */
  GstVideoInfo info;
  GstQueueArray* pending;
  guint frames_pending;
  guint64 next_tag;
  gint64 next_time_us;  /* of a frame without a time stamp */
  gboolean in_sequence; /* frames were sent since the last flush or reset */
  gboolean gap;         /* a frame was lost: the next one is marked DISCONT */
  guint64 frames_out;
  guint64 frames_dropped;

  /* Any thread, under `lock`. The streaming thread alone writes `enhancer`, so it reads it without. */
  GMutex lock;
  noxel_enhancer* enhancer;
  gboolean live;  /* how `enhancer` was made */
  gboolean renew; /* a property changed that only a new enhancer takes */
  GstClockTime latency;
  int mode;
  NoxelLive live_wish;
  gboolean lead_in;
  gchar* cache_directory;
  guint setting_count;
  double* settings;      /* by entry of noxel_settings() */
  gboolean* set_by_user; /* others keep the library's value, which depends on the mode */

  /* Any thread; apart from `lock`, which is held during calls that log. */
  GMutex log_lock;
  gchar* failure; /* the last one that the library logged */
};

G_DEFINE_TYPE(GstNoxelEnhance, gst_noxel_enhance, GST_TYPE_BASE_TRANSFORM)

#define base_class GST_BASE_TRANSFORM_CLASS(gst_noxel_enhance_parent_class)

static void take_log_line(void* context, int level, const char* message) {
  GstNoxelEnhance* self = context;
  const GstDebugLevel debug_level = level >= NOXEL_LOG_FAILURE   ? GST_LEVEL_ERROR
                                    : level == NOXEL_LOG_WARNING ? GST_LEVEL_WARNING
                                                                 : GST_LEVEL_INFO;
  GST_CAT_LEVEL_LOG(GST_CAT_DEFAULT, debug_level, self, "%s", message);
  if (level < NOXEL_LOG_FAILURE) return;
  g_mutex_lock(&self->log_lock);
  g_free(self->failure);
  self->failure = g_strdup(message);
  g_mutex_unlock(&self->log_lock);
}

static GstFlowReturn fail(GstNoxelEnhance* self, const char* what, int result) {
  g_mutex_lock(&self->log_lock);
  gchar* log = g_strdup(self->failure != NULL ? self->failure : "The library logged no failure.");
  g_mutex_unlock(&self->log_lock);
  const char* text = noxel_error_text(result);
  if (result == NOXEL_ERROR_NO_GL) {
    GST_ELEMENT_ERROR(self, RESOURCE, FAILED, ("%s failed: %s", what, text), ("%s", log));
  } else {
    GST_ELEMENT_ERROR(self, LIBRARY, FAILED, ("%s failed: %s", what, text), ("%s", log));
  }
  g_free(log);
  return GST_FLOW_ERROR;
}

/* Pending frames */

static void clear_pending(GstNoxelEnhance* self) {
  while (!gst_queue_array_is_empty(self->pending)) {
    const Pending* head = gst_queue_array_pop_head_struct(self->pending);
    if (head->frame != NULL) gst_buffer_unref(head->frame);
    if (head->event != NULL) gst_event_unref(head->event);
  }
  self->frames_pending = 0;
}

static void forget_frames(GstNoxelEnhance* self) {
  clear_pending(self);
  if (self->enhancer != NULL && self->in_sequence) noxel_reset(self->enhancer);
  self->in_sequence = FALSE;
}

static void push_waiting_events(GstNoxelEnhance* self) {
  while (!gst_queue_array_is_empty(self->pending)) {
    const Pending* head = gst_queue_array_peek_head_struct(self->pending);
    if (head->event == NULL) return;
    GstEvent* event = head->event;
    gst_queue_array_pop_head_struct(self->pending);
    base_class->sink_event(GST_BASE_TRANSFORM(self), event);
  }
}

static void report_lost_frame(GstNoxelEnhance* self, const GstBuffer* frame) {
  const GstSegment* segment = &GST_BASE_TRANSFORM(self)->segment;
  const GstClockTime time = GST_BUFFER_PTS(frame);
  ++self->frames_dropped;
  GstMessage* message =
      gst_message_new_qos(GST_OBJECT(self), self->live, gst_segment_to_running_time(segment, GST_FORMAT_TIME, time),
                          gst_segment_to_stream_time(segment, GST_FORMAT_TIME, time), time, GST_BUFFER_DURATION(frame));
  gst_message_set_qos_stats(message, GST_FORMAT_BUFFERS, self->frames_out, self->frames_dropped);
  gst_element_post_message(GST_ELEMENT(self), message);
}

/* What came with the frame of that tag; frames before it were lost on the way. Null: there is none. */
static GstBuffer* take_pending(GstNoxelEnhance* self, guint64 tag) {
  for (gboolean lost = FALSE;; lost = TRUE) {
    push_waiting_events(self);
    if (gst_queue_array_is_empty(self->pending)) return NULL;
    const Pending head = *(const Pending*)gst_queue_array_peek_head_struct(self->pending);
    if (head.tag > tag) return NULL;
    gst_queue_array_pop_head_struct(self->pending);
    --self->frames_pending;
    if (head.tag == tag) {
      if (lost) GST_BUFFER_FLAG_SET(head.frame, GST_BUFFER_FLAG_DISCONT);
      return head.frame;
    }
    report_lost_frame(self, head.frame);
    gst_buffer_unref(head.frame);
  }
}

/* Frames */

static gboolean frame_rate_is_known(const GstVideoInfo* info) {
  return info->fps_n > 0 && info->fps_d > 0;
}

static GstClockTime frame_duration(const GstVideoInfo* info) {
  return frame_rate_is_known(info) ? gst_util_uint64_scale_int(GST_SECOND, info->fps_d, info->fps_n) : GST_SECOND / 25;
}

static void describe_frame(const GstVideoFrame* video, noxel_frame* frame) {
  noxel_frame_init(frame, sizeof *frame);
  switch (GST_VIDEO_FRAME_FORMAT(video)) {
    case GST_VIDEO_FORMAT_NV12:
      frame->format = NOXEL_PLANES_NV12;
      break;
    case GST_VIDEO_FORMAT_NV21:
      frame->format = NOXEL_PLANES_NV21;
      break;
    case GST_VIDEO_FORMAT_I420:
      frame->format = NOXEL_PLANES_I420;
      break;
    default:
      frame->format = NOXEL_PLANES_YV12;
  }
  const GstVideoColorimetry* colours = &video->info.colorimetry;
  frame->range = colours->range == GST_VIDEO_COLOR_RANGE_0_255 ? NOXEL_RANGE_FULL : NOXEL_RANGE_LIMITED;
  switch (colours->matrix) {
    case GST_VIDEO_COLOR_MATRIX_BT601:
    case GST_VIDEO_COLOR_MATRIX_FCC: /* differs from BT.601 by 0.001 to 0.004 */
      frame->matrix = NOXEL_MATRIX_BT601;
      break;
    default: /* those of SMPTE 240M and BT.2020 are nearer to BT.709 */
      frame->matrix = NOXEL_MATRIX_BT709;
  }
  for (guint plane = 0; plane < GST_VIDEO_FRAME_N_PLANES(video); ++plane) {
    frame->planes[plane] = GST_VIDEO_FRAME_PLANE_DATA(video, plane);
    frame->strides[plane] = GST_VIDEO_FRAME_PLANE_STRIDE(video, plane);
  }
}

/* Running time, which also grows where a stream is played backwards. */
static gint64 frame_time_us(GstNoxelEnhance* self, const GstBuffer* input) {
  const GstSegment* segment = &GST_BASE_TRANSFORM(self)->segment;
  gint64 time_us = self->next_time_us;
  if (GST_BUFFER_PTS_IS_VALID(input) && segment->format == GST_FORMAT_TIME) {
    guint64 running_time = 0;
    const int sign = gst_segment_to_running_time_full(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(input), &running_time);
    if (sign != 0) time_us = sign * (gint64)(running_time / GST_USECOND);
  }
  const GstClockTime duration =
      GST_BUFFER_DURATION_IS_VALID(input) ? GST_BUFFER_DURATION(input) : frame_duration(&self->info);
  self->next_time_us = time_us + (gint64)(duration / GST_USECOND);
  return time_us;
}

/* The next enhanced frame. *output stays null when there is none yet; *end, which may be null, is set after a flush
 * when there are no more. */
static GstFlowReturn receive_frame(GstNoxelEnhance* self, GstBuffer** output, gboolean* end) {
  GstBufferPool* pool = gst_base_transform_get_buffer_pool(GST_BASE_TRANSFORM(self));
  if (pool == NULL) return GST_FLOW_NOT_NEGOTIATED;
  gst_buffer_pool_set_active(pool, TRUE);
  GstBuffer* buffer = NULL;
  GstFlowReturn flow = gst_buffer_pool_acquire_buffer(pool, &buffer, NULL);
  gst_object_unref(pool);
  if (flow != GST_FLOW_OK) return flow;

  GstVideoFrame video;
  if (!gst_video_frame_map(&video, &self->info, buffer, GST_MAP_WRITE)) {
    gst_buffer_unref(buffer);
    GST_ELEMENT_ERROR(self, RESOURCE, WRITE, ("An output buffer could not be mapped."), (NULL));
    return GST_FLOW_ERROR;
  }
  noxel_frame frame;
  describe_frame(&video, &frame);
  const int result = noxel_receive(self->enhancer, &frame, NULL);
  gst_video_frame_unmap(&video);

  if (result == NOXEL_OK) {
    GstBuffer* origin = take_pending(self, frame.tag);
    if (origin == NULL) {
      gst_buffer_unref(buffer);
      GST_ELEMENT_ERROR(self, LIBRARY, FAILED, ("A frame came back that was not sent."), (NULL));
      return GST_FLOW_ERROR;
    }
    gst_buffer_copy_into(buffer, origin, GST_BUFFER_COPY_FLAGS | GST_BUFFER_COPY_TIMESTAMPS | GST_BUFFER_COPY_META, 0,
                         -1);
    gst_buffer_unref(origin);
    ++self->frames_out;
    *output = buffer;
    return GST_FLOW_OK;
  }
  gst_buffer_unref(buffer);
  if (result == NOXEL_END && end != NULL) *end = TRUE;
  return result == NOXEL_AGAIN || result == NOXEL_END ? GST_FLOW_OK : fail(self, "Receiving a frame", result);
}

/* Pushes all frames that are on their way, and then the events behind them. The next frame begins a new sequence. */
static GstFlowReturn drain(GstNoxelEnhance* self) {
  GstFlowReturn flow = GST_FLOW_OK;
  if (self->in_sequence) {
    const int result = noxel_flush(self->enhancer);
    if (result < 0) flow = fail(self, "Flushing", result);
    gboolean end = FALSE;
    while (flow == GST_FLOW_OK && !end) {
      GstBuffer* output = NULL;
      flow = receive_frame(self, &output, &end);
      if (output != NULL) {
        flow = gst_pad_push(GST_BASE_TRANSFORM_SRC_PAD(self), output);
      } else if (flow == GST_FLOW_OK && !end) {
        g_usleep(1000); /* live: a frame is still in the GPU, and no call waits for it */
      }
    }
    if (end) {
      self->in_sequence = FALSE;
      push_waiting_events(self);
    }
  } else {
    push_waiting_events(self);
  }
  forget_frames(self); /* what could not be pushed */
  return flow;
}

/* Enhancers */

static void free_enhancer(GstNoxelEnhance* self) {
  clear_pending(self);
  g_mutex_lock(&self->lock);
  noxel_enhancer* enhancer = self->enhancer;
  self->enhancer = NULL;
  self->latency = 0;
  g_mutex_unlock(&self->lock);
  noxel_free(&enhancer);
  self->in_sequence = FALSE;
}

static void update_latency(GstNoxelEnhance* self) {
  int frames = noxel_latency_frames(self->enhancer);
  if (self->live) frames = MAX(frames, 1); /* what is ready is fetched when the next frame comes in */
  const GstClockTime latency = (guint64)MAX(frames, 0) * frame_duration(&self->info);
  g_mutex_lock(&self->lock);
  const gboolean changed = latency != self->latency;
  self->latency = latency;
  g_mutex_unlock(&self->lock);
  if (changed) gst_element_post_message(GST_ELEMENT(self), gst_message_new_latency(GST_OBJECT(self)));
}

static gboolean upstream_is_live(GstNoxelEnhance* self) {
  gboolean live = FALSE;
  GstQuery* query = gst_query_new_latency();
  if (gst_pad_peer_query(GST_BASE_TRANSFORM_SINK_PAD(self), query)) gst_query_parse_latency(query, &live, NULL, NULL);
  gst_query_unref(query);
  return live;
}

static GstFlowReturn make_enhancer(GstNoxelEnhance* self) {
  const gboolean upstream_live = upstream_is_live(self);
  noxel_config config;
  noxel_config_init(&config, sizeof config, GST_VIDEO_INFO_WIDTH(&self->info), GST_VIDEO_INFO_HEIGHT(&self->info));
  g_mutex_lock(&self->lock);
  self->renew = FALSE;
  self->live = self->live_wish == NOXEL_LIVE_TRUE || (self->live_wish == NOXEL_LIVE_AUTO && upstream_live);
  config.mode = self->mode;
  config.delivery = self->live ? NOXEL_LIVE : NOXEL_COMPLETE;
  config.lead_in = self->lead_in;
  if (frame_rate_is_known(&self->info)) config.frame_interval_us = (gint64)(frame_duration(&self->info) / GST_USECOND);
  config.log = take_log_line;
  config.log_context = self;
  gchar* cache_directory = self->cache_directory != NULL ? g_strdup(self->cache_directory)
                                                         : g_build_filename(g_get_user_cache_dir(), "noxel", NULL);
  g_mutex_unlock(&self->lock);
  if (*cache_directory != '\0') config.cache_directory = cache_directory;

  g_mutex_lock(&self->log_lock);
  g_clear_pointer(&self->failure, g_free); /* an earlier enhancer's */
  g_mutex_unlock(&self->log_lock);
  noxel_enhancer* enhancer = NULL;
  const int result = noxel_create(&config, &enhancer);
  g_free(cache_directory);
  if (result != NOXEL_OK) return fail(self, "Starting", result);

  g_mutex_lock(&self->lock);
  for (guint i = 0; i < self->setting_count; ++i) {
    if (self->set_by_user[i]) noxel_set(enhancer, noxel_settings(NULL)[i].id, self->settings[i]);
  }
  self->enhancer = enhancer;
  g_mutex_unlock(&self->lock);
  GST_INFO_OBJECT(self, "%d x %d, mode %d, %s", config.width, config.height, config.mode,
                  self->live ? "live" : "complete");
  update_latency(self);
  return GST_FLOW_OK;
}

/* Buffers in and out */

static GstFlowReturn send_frame(GstNoxelEnhance* self, GstBuffer* input) {
  GstBaseTransform* transform = GST_BASE_TRANSFORM(self);
  GstVideoFrame video;
  if (!gst_video_frame_map(&video, &self->info, input, GST_MAP_READ)) {
    GST_ELEMENT_ERROR(self, STREAM, FORMAT, ("A buffer does not hold a frame of the negotiated format."), (NULL));
    return GST_FLOW_ERROR;
  }
  noxel_frame frame;
  describe_frame(&video, &frame);
  frame.tag = self->next_tag;
  frame.time_us = frame_time_us(self, input);

  GstFlowReturn flow = GST_FLOW_OK;
  int result = noxel_send(self->enhancer, &frame);
  while (result == NOXEL_AGAIN) {
    GstBuffer* output = NULL;
    flow = receive_frame(self, &output, NULL);
    if (output == NULL) break;
    flow = gst_pad_push(GST_BASE_TRANSFORM_SRC_PAD(self), output);
    if (flow != GST_FLOW_OK) break;
    result = noxel_send(self->enhancer, &frame);
  }
  gst_video_frame_unmap(&video);
  if (flow != GST_FLOW_OK) return flow;
  if (result == NOXEL_DROPPED) {
    self->gap = TRUE;
    report_lost_frame(self, input);
    return GST_FLOW_OK;
  }
  if (result != NOXEL_OK) return fail(self, "Sending a frame", result);

  Pending pending = {.tag = self->next_tag++, .frame = gst_buffer_new()};
  GST_BASE_TRANSFORM_GET_CLASS(self)->copy_metadata(transform, input, pending.frame);
  if (self->gap) GST_BUFFER_FLAG_SET(pending.frame, GST_BUFFER_FLAG_DISCONT);
  self->gap = FALSE;
  gst_queue_array_push_tail_struct(self->pending, &pending);
  ++self->frames_pending;
  self->in_sequence = TRUE;
  update_latency(self);
  return GST_FLOW_OK;
}

/* A live source, or a leaky queue behind it, marks each gap. History survives a short one, and the library sees a long
 * one by the time stamps. */
static gboolean begins_sequence(GstNoxelEnhance* self, const GstBuffer* input) {
  if (GST_BUFFER_FLAG_IS_SET(input, GST_BUFFER_FLAG_RESYNC)) return TRUE;
  return !self->live && GST_BUFFER_IS_DISCONT(input);
}

static GstFlowReturn gst_noxel_enhance_submit_input_buffer(GstBaseTransform* transform, gboolean is_discont,
                                                           GstBuffer* input) {
  GstNoxelEnhance* self = GST_NOXEL_ENHANCE(transform);
  g_mutex_lock(&self->lock);
  const gboolean renew = self->renew;
  g_mutex_unlock(&self->lock);

  GstFlowReturn flow = GST_FLOW_OK;
  if (renew || begins_sequence(self, input)) flow = drain(self);
  if (flow != GST_FLOW_OK) {
    gst_buffer_unref(input);
    return flow;
  }
  if (renew) free_enhancer(self);

  /* Renegotiates where downstream asked for it, and skips a late frame. */
  flow = base_class->submit_input_buffer(transform, is_discont, input);
  input = transform->queued_buf;
  transform->queued_buf = NULL;
  if (flow == GST_FLOW_OK && input != NULL) {
    const GstClockTime time = gst_segment_to_stream_time(&transform->segment, GST_FORMAT_TIME, GST_BUFFER_PTS(input));
    if (GST_CLOCK_TIME_IS_VALID(time)) gst_object_sync_values(GST_OBJECT(self), time);
    if (self->enhancer == NULL) flow = make_enhancer(self);
    if (flow == GST_FLOW_OK) flow = send_frame(self, input);
  }
  if (input != NULL) gst_buffer_unref(input);
  return flow;
}

static GstFlowReturn gst_noxel_enhance_generate_output(GstBaseTransform* transform, GstBuffer** output) {
  GstNoxelEnhance* self = GST_NOXEL_ENHANCE(transform);
  *output = NULL;
  push_waiting_events(self);
  return self->frames_pending > 0 ? receive_frame(self, output, NULL) : GST_FLOW_OK;
}

/* Never called, as generate_output is ours; without it the base class would take input buffers for output. */
static GstFlowReturn gst_noxel_enhance_transform(GstBaseTransform* transform, GstBuffer* input, GstBuffer* output) {
  (void)transform;
  (void)input;
  (void)output;
  return GST_FLOW_NOT_SUPPORTED;
}

/* Metas that tell of the picture's content, size or orientation stay true; those of its memory or layout do not. */
static gboolean gst_noxel_enhance_transform_meta(GstBaseTransform* transform, GstBuffer* output, GstMeta* meta,
                                                 GstBuffer* input) {
  static const gchar* const kept[] = {GST_META_TAG_VIDEO_STR, GST_META_TAG_VIDEO_ORIENTATION_STR,
                                      GST_META_TAG_VIDEO_SIZE_STR, NULL};
  (void)transform;
  (void)output;
  (void)input;
  const gchar* const* tags = gst_meta_api_type_get_tags(meta->info->api);
  while (tags != NULL && *tags != NULL) {
    if (!g_strv_contains(kept, *tags)) return FALSE;
    ++tags;
  }
  return TRUE;
}

/* Caps and pools */

static gboolean gst_noxel_enhance_set_caps(GstBaseTransform* transform, GstCaps* input, GstCaps* output) {
  GstNoxelEnhance* self = GST_NOXEL_ENHANCE(transform);
  (void)output;
  GstVideoInfo info;
  if (!gst_video_info_from_caps(&info, input)) return FALSE;
  if (gst_video_info_is_equal(&info, &self->info)) return TRUE;
  drain(self); /* in the old format; should that fail, the next push fails too */
  free_enhancer(self);
  self->info = info;
  return TRUE;
}

static gboolean gst_noxel_enhance_propose_allocation(GstBaseTransform* transform, GstQuery* decide_query,
                                                     GstQuery* query) {
  if (!base_class->propose_allocation(transform, decide_query, query)) return FALSE;
  if (!gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, NULL)) {
    gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, NULL);
  }
  return TRUE;
}

static gboolean gst_noxel_enhance_decide_allocation(GstBaseTransform* transform, GstQuery* query) {
  GstCaps* caps = NULL;
  GstVideoInfo info;
  gst_query_parse_allocation(query, &caps, NULL);
  if (caps == NULL || !gst_video_info_from_caps(&info, caps)) return FALSE;

  GstBufferPool* pool = NULL;
  guint size = 0;
  guint minimum = 0;
  guint maximum = 0;
  const gboolean offered = gst_query_get_n_allocation_pools(query) > 0;
  if (offered) gst_query_parse_nth_allocation_pool(query, 0, &pool, &size, &minimum, &maximum);
  if (pool == NULL) pool = gst_video_buffer_pool_new();
  size = MAX(size, (guint)GST_VIDEO_INFO_SIZE(&info));

  GstStructure* config = gst_buffer_pool_get_config(pool);
  gst_buffer_pool_config_set_params(config, caps, size, minimum, maximum);
  if (gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, NULL)) {
    gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_META);
  }
  gst_buffer_pool_set_config(pool, config); /* the base class sees whether the pool took it */
  if (offered) {
    gst_query_set_nth_allocation_pool(query, 0, pool, size, minimum, maximum);
  } else {
    gst_query_add_allocation_pool(query, pool, size, minimum, maximum);
  }
  gst_object_unref(pool);
  return base_class->decide_allocation(transform, query);
}

/* Events and queries */

static gboolean gst_noxel_enhance_sink_event(GstBaseTransform* transform, GstEvent* event) {
  GstNoxelEnhance* self = GST_NOXEL_ENHANCE(transform);
  switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_FLUSH_STOP:
      forget_frames(self);
      self->gap = FALSE;
      break;
    case GST_EVENT_STREAM_START:
    case GST_EVENT_SEGMENT:
    case GST_EVENT_GAP:
    case GST_EVENT_EOS:
      drain(self);
      break;
    default:
      /* Sticky ones hold for the stream and need no place in it. */
      if (GST_EVENT_IS_SERIALIZED(event) && !GST_EVENT_IS_STICKY(event) && self->frames_pending > 0) {
        Pending pending = {.event = event};
        gst_queue_array_push_tail_struct(self->pending, &pending);
        return TRUE;
      }
  }
  return base_class->sink_event(transform, event);
}

static gboolean gst_noxel_enhance_src_event(GstBaseTransform* transform, GstEvent* event) {
  GstNoxelEnhance* self = GST_NOXEL_ENHANCE(transform);
  if (GST_EVENT_TYPE(event) == GST_EVENT_QOS) {
    g_mutex_lock(&self->lock);
    const gboolean live = self->live;
    g_mutex_unlock(&self->lock);
    /* The base class would skip late frames, and every one is wanted. */
    if (!live) return gst_pad_push_event(GST_BASE_TRANSFORM_SINK_PAD(self), event);
  }
  return base_class->src_event(transform, event);
}

static gboolean gst_noxel_enhance_query(GstBaseTransform* transform, GstPadDirection direction, GstQuery* query) {
  GstNoxelEnhance* self = GST_NOXEL_ENHANCE(transform);
  if (!base_class->query(transform, direction, query)) return FALSE;
  if (GST_QUERY_TYPE(query) != GST_QUERY_LATENCY || direction != GST_PAD_SRC) return TRUE;
  gboolean live = FALSE;
  GstClockTime minimum = 0;
  GstClockTime maximum = GST_CLOCK_TIME_NONE;
  gst_query_parse_latency(query, &live, &minimum, &maximum);
  g_mutex_lock(&self->lock);
  const GstClockTime latency = self->latency;
  g_mutex_unlock(&self->lock);
  if (GST_CLOCK_TIME_IS_VALID(maximum)) maximum += latency;
  gst_query_set_latency(query, live, minimum + latency, maximum);
  return TRUE;
}

/* Properties, life */

static void gst_noxel_enhance_set_property(GObject* object, guint id, const GValue* value, GParamSpec* spec) {
  GstNoxelEnhance* self = GST_NOXEL_ENHANCE(object);
  (void)spec;
  g_mutex_lock(&self->lock);
  if (id >= NOXEL_PROPERTY_SETTINGS) {
    const guint index = id - NOXEL_PROPERTY_SETTINGS;
    self->settings[index] = noxel_value_to_setting(index, value);
    self->set_by_user[index] = TRUE;
    if (self->enhancer != NULL) noxel_set(self->enhancer, noxel_settings(NULL)[index].id, self->settings[index]);
  } else {
    if (id == NOXEL_PROPERTY_MODE) {
      self->mode = g_value_get_enum(value);
    } else if (id == NOXEL_PROPERTY_LIVE) {
      self->live_wish = (NoxelLive)g_value_get_enum(value);
    } else if (id == NOXEL_PROPERTY_LEAD_IN) {
      self->lead_in = g_value_get_boolean(value);
    } else {
      g_free(self->cache_directory);
      self->cache_directory = g_value_dup_string(value);
    }
    self->renew = TRUE;
  }
  g_mutex_unlock(&self->lock);
}

static void gst_noxel_enhance_get_property(GObject* object, guint id, GValue* value, GParamSpec* spec) {
  GstNoxelEnhance* self = GST_NOXEL_ENHANCE(object);
  (void)spec;
  g_mutex_lock(&self->lock);
  if (id >= NOXEL_PROPERTY_SETTINGS) {
    const guint index = id - NOXEL_PROPERTY_SETTINGS;
    double number = self->settings[index];
    if (self->enhancer != NULL) noxel_get(self->enhancer, noxel_settings(NULL)[index].id, &number);
    noxel_setting_to_value(index, number, value);
  } else if (id == NOXEL_PROPERTY_MODE) {
    g_value_set_enum(value, self->mode);
  } else if (id == NOXEL_PROPERTY_LIVE) {
    g_value_set_enum(value, (int)self->live_wish);
  } else if (id == NOXEL_PROPERTY_LEAD_IN) {
    g_value_set_boolean(value, self->lead_in);
  } else {
    g_value_set_string(value, self->cache_directory);
  }
  g_mutex_unlock(&self->lock);
}

static gboolean gst_noxel_enhance_start(GstBaseTransform* transform) {
  GstNoxelEnhance* self = GST_NOXEL_ENHANCE(transform);
  gst_video_info_init(&self->info);
  self->next_time_us = 0;
  self->gap = FALSE;
  self->frames_out = 0;
  self->frames_dropped = 0;
  return TRUE;
}

static gboolean gst_noxel_enhance_stop(GstBaseTransform* transform) {
  free_enhancer(GST_NOXEL_ENHANCE(transform));
  return TRUE;
}

static void gst_noxel_enhance_finalize(GObject* object) {
  GstNoxelEnhance* self = GST_NOXEL_ENHANCE(object);
  free_enhancer(self);
  gst_queue_array_free(self->pending);
  g_free(self->cache_directory);
  g_free(self->settings);
  g_free(self->set_by_user);
  g_free(self->failure);
  g_mutex_clear(&self->lock);
  g_mutex_clear(&self->log_lock);
  G_OBJECT_CLASS(gst_noxel_enhance_parent_class)->finalize(object);
}

static void gst_noxel_enhance_init(GstNoxelEnhance* self) {
  g_mutex_init(&self->lock);
  g_mutex_init(&self->log_lock);
  gst_video_info_init(&self->info);
  self->pending = gst_queue_array_new_for_struct(sizeof(Pending), 64);
  self->mode = NOXEL_MODE_CLEAR;
  self->live_wish = NOXEL_LIVE_AUTO;
  self->lead_in = TRUE;
  size_t count = 0;
  const noxel_setting_info* settings = noxel_settings(&count);
  self->setting_count = (guint)count;
  self->settings = g_new0(double, count);
  self->set_by_user = g_new0(gboolean, count);
  for (size_t i = 0; i < count; ++i) self->settings[i] = settings[i].initial;
  gst_base_transform_set_gap_aware(GST_BASE_TRANSFORM(self), TRUE);
  gst_base_transform_set_qos_enabled(GST_BASE_TRANSFORM(self), TRUE);
}

static void gst_noxel_enhance_class_init(GstNoxelEnhanceClass* klass) {
  GObjectClass* object_class = G_OBJECT_CLASS(klass);
  GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
  GstBaseTransformClass* transform_class = GST_BASE_TRANSFORM_CLASS(klass);
  GST_DEBUG_CATEGORY_INIT(noxel_enhance_debug, "noxelenhance", 0, "the noxelenhance element and libnoxel's log");

  object_class->set_property = gst_noxel_enhance_set_property;
  object_class->get_property = gst_noxel_enhance_get_property;
  object_class->finalize = gst_noxel_enhance_finalize;
  noxel_install_properties(object_class);

  gst_element_class_set_static_metadata(element_class, "Noxel enhancer", "Filter/Effect/Video",
                                        "Denoises, brightens and steadies dark video", "The Noxel authors");
  gst_element_class_add_static_pad_template(element_class, &sink_template);
  gst_element_class_add_static_pad_template(element_class, &src_template);

  transform_class->start = gst_noxel_enhance_start;
  transform_class->stop = gst_noxel_enhance_stop;
  transform_class->set_caps = gst_noxel_enhance_set_caps;
  transform_class->propose_allocation = gst_noxel_enhance_propose_allocation;
  transform_class->decide_allocation = gst_noxel_enhance_decide_allocation;
  transform_class->transform = gst_noxel_enhance_transform;
  transform_class->transform_meta = gst_noxel_enhance_transform_meta;
  transform_class->sink_event = gst_noxel_enhance_sink_event;
  transform_class->src_event = gst_noxel_enhance_src_event;
  transform_class->query = gst_noxel_enhance_query;
  transform_class->submit_input_buffer = gst_noxel_enhance_submit_input_buffer;
  transform_class->generate_output = gst_noxel_enhance_generate_output;
}
