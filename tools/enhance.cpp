#include "enhance.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <vector>

#include "colour_conversion.h"
#include "frame_dump.h"
#include "interrupt.h"
#include "noxel/noxel.h"
#include "nv21_frame.h"
#include "output_file.h"
#include "overlay.h"
#include "picture.h"
#include "progress.h"
#include "rgba_session.h"
#include "statistics.h"
#include "still.h"
#include "tool_error.h"
#include "video_reader.h"
#include "video_writer.h"

namespace noxel::tool {
namespace {

void checkLook(const EnhanceOptions& options) {
  const auto given = [&](const char* name) {
    return std::find(options.given.begin(), options.given.end(), name) != options.given.end();
  };
  if (options.look.neutralExposure && given("--engine-mode") && options.look.engineMode != kModeNeutralExposure) {
    throw ToolError(kExitUsage, "--neutral-exposure stands for --engine-mode 3; leave one of them out");
  }
  checkIsRead(options.look, options.given);
  if (options.overlay) checkIsRead(options.look, {"--overlay"});
}

void checkOutputs(const EnhanceOptions& options) {
  if (!isStill(options.output)) containerOf(options.output);
  std::error_code ignored;
  for (const std::string& path : {options.output, options.statsFile, options.pictureFile}) {
    if (path.empty() || path == "-") continue;
    if (options.input != "-" && std::filesystem::equivalent(options.input, path, ignored)) {
      throw ToolError(kExitUsage, path + " is the input; choose another name");
    }
    checkMayWrite(path, options.overwrite);
  }
  checkMayDump(options.dumpFolder, options.overwrite);
}

std::string sizeText(const AVFrame& frame) {
  return std::to_string(frame.width) + "x" + std::to_string(frame.height);
}

// One run, from the first frame on.
class Run {
 public:
  Run(const EnhanceOptions& options, VideoReader& reader, FramePtr first)
      : options_(options),
        reader_(reader),
        frame_(std::move(first)),
        width_(frame_->width),
        height_(frame_->height),
        nv21Width_(paddedWidth(width_)),
        nv21_(nv21Size(nv21Width_, paddedHeight(height_))),
        colours_(*frame_),
        writer_(outputSettings()),
        picture_(options.pictureFrame),
        progress_(options.quiet, isatty(STDERR_FILENO) != 0, reader.expectedFrames()) {
    if (frame_->color_trc == AVCOL_TRC_SMPTE2084 || frame_->color_trc == AVCOL_TRC_ARIB_STD_B67) {
      note("the clip is HDR; it is enhanced and written with 8 bits a sample");
    }
    if (!options.dumpFolder.empty()) dump_.emplace(options.dumpFolder);
  }

  void enhanceAll(const EnhancerFactory& factory);
  void finish();

 private:
  OutputSettings outputSettings() const;
  void enhanceFrame(Enhancer& enhancer);
  void note(const std::string& text);
  void writeStatistics(double seconds) const;

  const EnhanceOptions& options_;
  VideoReader& reader_;
  FramePtr frame_;  // the one in hand; null after the last
  const int width_;
  const int height_;
  const int nv21Width_;
  std::vector<uint8_t> nv21_;
  ColourConversion colours_;
  VideoWriter writer_;
  PictureKeeper picture_;
  Statistics statistics_;
  Progress progress_;
  std::optional<FrameDump> dump_;
};

OutputSettings Run::outputSettings() const {
  OutputSettings settings;
  settings.path = options_.output;
  settings.crf = options_.crf;
  settings.width = width_;
  settings.height = height_;
  settings.timeBase = reader_.timeBase();
  settings.frameRate = reader_.frameRate();
  settings.sampleAspectRatio = reader_.sampleAspectRatio(*frame_);
  settings.tags = colours_.tags();
  settings.displayMatrix = reader_.displayMatrix();
  settings.audio = reader_.audioStreams();
  settings.metadata = reader_.metadata();
  return settings;
}

void Run::note(const std::string& text) {
  if (options_.quiet) return;
  progress_.clear();
  std::fprintf(stderr, "noxel: note: %s\n", text.c_str());
}

void Run::enhanceAll(const EnhancerFactory& factory) {
  EnhancerSettings settings;
  settings.width = nv21Width_;
  settings.height = paddedHeight(height_);
  settings.nominalIntervalUs = reader_.nominalIntervalUs();
  settings.look = options_.look;
  settings.overlay = options_.overlay || (dump_ && isRead(options_.look, "--overlay"));
  const std::unique_ptr<Enhancer> enhancer = factory(settings);
  for (const std::string& text : writer_.notes()) note(text);
  const size_t notesBefore = writer_.notes().size();

  if (options_.warmUp) {
    packNv21(*colours_.toEngine(*padded(*colours_.planar(*frame_))), nv21_.data());
    enhancer->warmUp(nv21_.data());
  }
  progress_.restart();
  while (frame_) {
    enhanceFrame(*enhancer);
    progress_.frameDone(static_cast<int64_t>(statistics_.count()));
    frame_ = reader_.next();
    for (const PacketPtr& packet : reader_.takeAudio()) writer_.writeAudio(*packet);
  }
  writer_.finish();
  for (size_t i = notesBefore; i < writer_.notes().size(); ++i) note(writer_.notes()[i]);
}

void Run::enhanceFrame(Enhancer& enhancer) {
  const auto index = static_cast<int64_t>(statistics_.count());
  if (frame_->width != width_ || frame_->height != height_) {
    throw ToolError(kExitFailed, "frame " + std::to_string(index) + " changes the size from " + std::to_string(width_) +
                                     "x" + std::to_string(height_) + " to " + sizeText(*frame_) +
                                     "; cut the clip there and enhance the parts one by one");
  }
  FrameStatistics statistics;
  const FramePtr before = colours_.planar(*frame_);
  FramePtr input = colours_.toEngine(*padded(*before));
  packNv21(*input, nv21_.data());
  statistics.seconds = static_cast<double>(frame_->pts) * av_q2d(reader_.timeBase());
  statistics.lumaBefore = meanLuma(nv21_.data(), nv21Width_, width_, height_);

  const auto start = std::chrono::steady_clock::now();
  enhancer.enhance(nv21_.data(), av_rescale_q(frame_->pts, reader_.timeBase(), kMicroseconds));
  statistics.totalMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  statistics.report = enhancer.report();
  statistics.lumaAfter = meanLuma(nv21_.data(), nv21Width_, width_, height_);
  const Overlay overlay = enhancer.overlay();
  if (options_.overlay) drawOverlay(overlay, nv21_.data(), nv21Width_, paddedHeight(height_));

  FramePtr enhanced = unpackNv21(nv21_.data(), nv21Width_, paddedHeight(height_));
  if (dump_) {
    dump_->picture(index, "before", *input);
    dump_->picture(index, "after", *enhanced);
    if (!overlay.mask.empty()) {
      dump_->grey(index, "mask", overlay.mask.data(), overlay.maskWidth, overlay.maskHeight);
    }
  }
  FramePtr output = colours_.fromEngine(*enhanced);
  crop(*output, width_, height_);
  if (options_.compare) {
    if (av_frame_make_writable(output.get()) < 0) throw std::bad_alloc();
    copyLeftHalf(*before, *output);
  }
  writer_.write(*output, frame_->pts, frame_->pkt_duration);

  if (!options_.pictureFile.empty() && picture_.wants(index)) {
    crop(*input, width_, height_);
    crop(*enhanced, width_, height_);
    picture_.keep(std::move(input), std::move(enhanced));
  }
  statistics_.add(statistics);
}

void Run::writeStatistics(double seconds) const {
  nlohmann::ordered_json json = {
      {"noxel", Noxel_GetVersion()},
      {"input",
       {{"file", options_.input},
        {"codec", reader_.codecName()},
        {"width", width_},
        {"height", height_},
        {"frame_rate", av_q2d(reader_.frameRate())},
        {"matrix", av_color_space_name(colours_.matrix())},
        {"range", av_color_range_name(colours_.range())},
        {"audio_streams", reader_.audioStreams().size()}}},
      {"output", {{"file", options_.output}, {"encoder", writer_.encoderName()}, {"stopped_early", stopRequested()}}},
      {"options",
       {{"engine_mode", options_.look.mode()},
        {"denoise", options_.look.denoise},
        {"strength", options_.look.strength},
        {"exposure", options_.look.exposure},
        {"neutral_exposure", options_.look.mode() == kModeNeutralExposure},
        {"stabilize", options_.look.stabilize},
        {"sharpening", options_.look.sharpening},
        {"contrast", options_.look.contrast},
        {"zoom", options_.look.zoom},
        {"compare", options_.compare},
        {"overlay", options_.overlay},
        {"warm_up", options_.warmUp && followsExposure(options_.look)},
        {"crf", options_.crf}}}};
  json.update(statistics_.json(seconds));
  const std::string text = json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  writeWholeFile(options_.statsFile, text.data(), text.size());
}

void Run::finish() {
  const double seconds = progress_.seconds();
  progress_.clear();
  if (!options_.pictureFile.empty()) picture_.write(options_.pictureFile);
  if (!options_.statsFile.empty()) writeStatistics(seconds);
  if (reader_.damagedPackets() > 0) {
    note(std::to_string(reader_.damagedPackets()) + " damaged packets of the input could not be decoded");
  }
  if (stopRequested()) note("stopped on request; the output is whole up to there");
  if (options_.quiet) return;
  const auto frames = static_cast<double>(statistics_.count());
  std::fprintf(stderr, "%zu frames in %.1f s (%.1f fps), mean luma %.1f -> %.1f: %s\n", statistics_.count(), seconds,
               seconds > 0 ? frames / seconds : 0.0, statistics_.meanLumaBefore(), statistics_.meanLumaAfter(),
               options_.output == "-" ? "standard output" : options_.output.c_str());
}

}  // namespace

int runEnhance(const EnhanceOptions& options) {
  return runEnhance(options, [](const EnhancerSettings& settings) -> std::unique_ptr<Enhancer> {
    if (settings.look.mode() == kModeSynchronousRgba) return std::make_unique<RgbaSession>(settings);
    return std::make_unique<EnhancerSession>(settings);
  });
}

int runEnhance(const EnhanceOptions& options, const EnhancerFactory& factory) {
  checkLook(options);
  checkOutputs(options);
  if (isStill(options.output)) return runStill(options);
  VideoReader reader(options.input);
  FramePtr first = reader.next();
  if (!first) {
    if (stopRequested()) throw ToolError(kExitFailed, "stopped before the first frame; nothing was written");
    throw ToolError(kExitUnreadable, "no frame of " + options.input + " can be decoded");
  }
  Run run(options, reader, std::move(first));
  run.enhanceAll(factory);
  run.finish();
  return kExitFine;
}

}  // namespace noxel::tool
