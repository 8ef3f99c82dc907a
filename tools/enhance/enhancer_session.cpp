#include "enhance/enhancer_session.h"

#include <algorithm>
#include <new>
#include <utility>

#include "common/engine_log.h"
#include "common/program_cache_path.h"
#include "common/tool_error.h"

namespace noxel::tool {
namespace {

void check(int result) {
  if (result < NOXEL_OK)
    throw ToolError(kExitFailed, std::string("the engine refused a frame: ") + noxel_error_text(result));
}

std::vector<noxel_track> tracksOf(const noxel_enhancer* enhancer, bool own) {
  std::vector<noxel_track> tracks(static_cast<size_t>(std::max(noxel_tracks(enhancer, own, nullptr, 0), 0)));
  noxel_tracks(enhancer, own, tracks.data(), static_cast<int>(tracks.size()));
  return tracks;
}

}  // namespace

noxel_enhancer* makeEnhancer(noxel_config config) {
  const std::string cache = programCacheDirectory();
  if (!cache.empty()) config.cache_directory = cache.c_str();
  if (config.log == nullptr) config.log = EngineLog::receive;
  noxel_enhancer* enhancer = nullptr;
  const int result = noxel_create(&config, &enhancer);
  if (result == NOXEL_OK) return enhancer;
  const std::string size = std::to_string(config.width) + "x" + std::to_string(config.height);
  if (result == NOXEL_ERROR_NO_GL)
    throw ToolError(kExitNoGl, "no usable OpenGL ES 3.0 for frames of " + size + "; see `noxel info`");
  throw ToolError(kExitFailed, "cannot make an engine for frames of " + size + "; scale the clip down first");
}

void addPasses(const noxel_enhancer* enhancer, PassTimes& times) {
  const char* name = nullptr;
  uint64_t nanoseconds = 0;
  for (int i = 0; noxel_pass(enhancer, i, &name, &nanoseconds) == NOXEL_OK; ++i) times.add(name, nanoseconds);
}

EnhancerSession::EnhancerSession(const EnhancerSettings& settings) : settings_(settings) {
  noxel_config config;
  noxel_config_init(&config, sizeof(config), settings.width, settings.height);
  config.mode = settings.look.mode();
  config.quality = settings.look.quality;
  config.frame_interval_us = settings.nominalIntervalUs;
  config.lead_in = settings.warmUp ? 1 : 0;
  config.log = receiveLog;
  config.log_context = this;
  if (settings.overlay) config.diagnostics |= NOXEL_DIAGNOSE_TRACKS | NOXEL_DIAGNOSE_HISTORY;
  if (settings.passes) config.diagnostics |= NOXEL_DIAGNOSE_PASSES;
  enhancer_ = makeEnhancer(config);
  setParameters(settings.look, enhancer_);
  noxel_frame_info_init(&info_, sizeof(info_));
}

EnhancerSession::~EnhancerSession() {
  noxel_free(&enhancer_);
}

void EnhancerSession::receiveLog(void* session, int level, const char* message) {
  EngineLog::receive(nullptr, level, message);
  if (level != NOXEL_LOG_WARNING) return;
  auto* self = static_cast<EnhancerSession*>(session);
  const std::lock_guard lock(self->mutex_);
  self->note_ = message;
}

std::string EnhancerSession::takeNote() {
  const std::lock_guard lock(mutex_);
  return std::exchange(note_, {});
}

// The planes are only read when they are sent.
noxel_frame EnhancerSession::frameOf(const uint8_t* nv21) const {
  auto* bytes = const_cast<uint8_t*>(nv21);
  noxel_frame frame;
  noxel_frame_init(&frame, sizeof(frame));
  frame.format = NOXEL_PLANES_NV21;
  frame.range = NOXEL_RANGE_FULL;
  frame.matrix = NOXEL_MATRIX_BT601;
  frame.planes[0] = bytes;
  frame.planes[1] = bytes + static_cast<ptrdiff_t>(settings_.width) * settings_.height;
  frame.strides[0] = frame.strides[1] = settings_.width;
  return frame;
}

bool EnhancerSession::send(const uint8_t* nv21, int64_t presentationUs) {
  noxel_frame frame = frameOf(nv21);
  frame.time_us = presentationUs;
  const int result = noxel_send(enhancer_, &frame);
  check(result);
  return result == NOXEL_OK;
}

void EnhancerSession::finish() {
  noxel_flush(enhancer_);
}

bool EnhancerSession::receive(uint8_t* nv21) {
  noxel_frame frame = frameOf(nv21);
  const int result = noxel_receive(enhancer_, &frame, &info_);
  check(result);
  return result == NOXEL_OK;
}

int EnhancerSession::latency() const {
  return noxel_latency_frames(enhancer_);
}

FrameReport EnhancerSession::report() const {
  FrameReport report;
  report.status = settings_.look.spatial() ? -1 : info_.motion_known;
  report.gamma = info_.gamma;
  report.gain = info_.gain;
  report.zoom = info_.zoom;
  report.uploadMs = info_.upload_ms;
  report.registrationMs = info_.motion_ms;
  report.gpuMs = info_.gpu_ms;
  report.startsSequence = info_.starts_sequence != 0;
  report.pointsTracked = info_.points_tracked;
  report.pointsKept = info_.points_kept;
  std::copy_n(info_.previous_from_current, 9, report.previousFromCurrent);
  std::copy_n(info_.stabilized_from_current, 9, report.stabilizedFromCurrent);
  std::copy_n(info_.tone, std::size(info_.tone), report.toneLevels);
  report.noise = NoiseCurve(info_);
  return report;
}

Overlay EnhancerSession::overlay() const {
  Overlay overlay;
  overlay.report = report();
  overlay.maskInFrame = settings_.look.mode() == NOXEL_MODE_CLEAR;
  overlay.tracks = tracksOf(enhancer_, false);
  overlay.ownTracks = tracksOf(enhancer_, true);
  overlay.mask.resize(static_cast<size_t>(settings_.width) * static_cast<size_t>(settings_.height));
  if (noxel_history(enhancer_, overlay.mask.data(), overlay.mask.size(), &overlay.maskWidth, &overlay.maskHeight) !=
      NOXEL_OK) {
    overlay.mask.clear();
  }
  return overlay;
}

void EnhancerSession::addPasses(PassTimes& times) const {
  noxel::tool::addPasses(enhancer_, times);
}

}  // namespace noxel::tool
