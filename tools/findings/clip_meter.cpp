#include "findings/clip_meter.h"

#include <filesystem>
#include <new>
#include <system_error>

#include "common/noise_sigma.h"

namespace noxel::tool {

ClipMeter::ClipMeter(const ClipInput& clip) {
  if (!registration_.create(clip.nv21Width(), clip.nv21Height(), false, nullptr) || !registration_.enableNoise()) {
    throw std::bad_alloc();
  }
}

void ClipMeter::measure(ClipInput& clip) {
  luma_ = {};
  addPlane(clip.nv21().data(), clip.width(), clip.height(), clip.nv21Width(), &luma_);
  const bool moved = registration_.measure(clip.nv21().data());
  sigma_ = noise().known ? tool::noiseSigma(noise(), luma_) : 0;
  FrameFigures figures;
  figures.seconds = clip.seconds();
  figures.meanLuma = meanLevel(luma_);
  if (started_ && noise().known) figures.noiseSigma = sigma_;
  if (started_ && moved) {
    double a[6];
    registration_.currentFromPrevious(a);
    const double x = (clip.width() - 1) / 2.0, y = (clip.height() - 1) / 2.0;
    figures.movedX = a[0] * x + a[1] * y + a[2] - x;
    figures.movedY = a[3] * x + a[4] * y + a[5] - y;
  }
  started_ = true;
  meter_.add(figures);
}

void ClipMeter::restart() {
  registration_.restart();
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

Findings lookAtFile(const std::string& path) {
  ClipInput clip(path);
  ClipMeter meter(clip);
  const double start = clip.seconds();
  const double length = static_cast<double>(clip.reader().expectedFrames()) / av_q2d(clip.reader().frameRate());
  double last = start;
  for (int run = 0; run < kLookRuns; ++run) {
    // A file with few keyframes leads back to what was seen.
    if (run > 0 && (!clip.seek(start + length * run / kLookRuns) || clip.seconds() <= last)) continue;
    meter.restart();
    int frames = 0;
    do {
      meter.measure(clip);
    } while (++frames < kLookFrames && clip.next());
    last = clip.seconds();
  }
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
