#include "findings/clip_meter.h"

#include <algorithm>
#include <filesystem>
#include <new>
#include <optional>
#include <system_error>

namespace noxel::tool {

namespace {

double meanToned(const Histogram& luma, const float (&tone)[kLevels]) {
  double sum = 0;
  for (int level = 0; level < kLevels; ++level) sum += luma.bins[level] * static_cast<double>(tone[level]);
  return sum / histogramMass(luma);
}

}  // namespace

ClipMeter::ClipMeter(const ClipInput& clip, int exposure) {
  noxel_config config;
  noxel_config_init(&config, sizeof(config), clip.nv21Width(), clip.nv21Height());
  config.frame_interval_us = clip.reader().nominalIntervalUs();
  if (noxel_meter_create(&config, &engine_) != NOXEL_OK) throw std::bad_alloc();
  noxel_meter_set_exposure(engine_, exposure);
  noxel_frame_info_init(&info_, sizeof(info_));
}

ClipMeter::~ClipMeter() {
  noxel_meter_free(&engine_);
}

void ClipMeter::measure(ClipInput& clip) {
  noxel_frame frame;
  noxel_frame_init(&frame, sizeof(frame));
  frame.format = NOXEL_PLANES_NV21;
  frame.range = NOXEL_RANGE_FULL;
  frame.matrix = NOXEL_MATRIX_BT601;
  frame.planes[0] = clip.nv21().data();
  frame.planes[1] = frame.planes[0] + static_cast<ptrdiff_t>(clip.nv21Width()) * clip.nv21Height();
  frame.strides[0] = frame.strides[1] = clip.nv21Width();
  frame.time_us = clip.microseconds();
  noxel_meter_measure(engine_, &frame, &info_);
  luma_ = {};
  addPlane(clip.nv21().data(), clip.width(), clip.height(), clip.nv21Width(), &luma_);
  noise_ = NoiseCurve(info_);
  sigma_ = noise_.known ? tool::noiseSigma(noise_, luma_) : 0;

  FrameFigures figures;
  figures.seconds = clip.seconds();
  figures.meanLuma = meanLevel(luma_);
  figures.meanToned = meanToned(luma_, info_.tone);
  if (started_ && noise_.known) figures.noiseSigma = sigma_;
  if (started_ && info_.motion_known != 0) {
    const float(&m)[9] = info_.previous_from_current;
    const double x = clip.width() / 2.0, y = clip.height() / 2.0;
    figures.movedX = x - (static_cast<double>(m[0]) * x + static_cast<double>(m[1]) * y + static_cast<double>(m[2]));
    figures.movedY = y - (static_cast<double>(m[3]) * x + static_cast<double>(m[4]) * y + static_cast<double>(m[5]));
  }
  started_ = true;
  meter_.add(figures);
}

void ClipMeter::restart() {
  meter_.endRun();
  started_ = false;
}

Findings ClipMeter::findings(const ClipInput& clip) {
  Findings findings;
  findings.width = clip.width();
  findings.hdr = clip.hdr();
  findings.interlaced = clip.reader().interlaced();
  meter_.finish(findings);
  return findings;
}

bool canReopen(const std::string& path) {
  std::error_code ignored;
  return path != "-" && std::filesystem::is_regular_file(path, ignored);
}

Findings lookAtFile(const std::string& path, const TimeRange& range) {
  ClipInput clip(path);
  ClipMeter meter(clip);
  const double start = clip.seconds() + static_cast<double>(range.startUs) / 1e6;
  double length = static_cast<double>(clip.reader().expectedFrames()) / av_q2d(clip.reader().frameRate());
  length = std::max(length - static_cast<double>(range.startUs) / 1e6, 0.0);
  if (range.durationUs) length = std::min(length, static_cast<double>(*range.durationUs) / 1e6);
  std::optional<double> last;
  for (int run = 0; run < kLookRuns; ++run) {
    // A file with few keyframes leads back to what was seen.
    const bool there = run == 0 && range.startUs == 0;
    const double place = start + length * run / kLookRuns;
    if (!there && (!clip.seek(place) || (last && clip.seconds() <= *last))) continue;
    meter.restart();
    int frames = 0;
    do {
      meter.measure(clip);
    } while (++frames < (run == 0 ? kLookFrames : kLaterLookFrames) && clip.next());
    last = clip.seconds();
  }
  if (!last) meter.measure(clip);
  return meter.findings(clip);
}

Findings lookAtFirstFrames(ClipInput& clip) {
  ClipMeter meter(clip);
  clip.mark();
  int frames = 0;
  do {
    meter.measure(clip);
  } while (++frames < kLookFrames && clip.next());
  const Findings findings = meter.findings(clip);
  clip.returnToMark();
  return findings;
}

}  // namespace noxel::tool
