#include "enhance/enhance.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <future>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "common/interrupt.h"
#include "common/noise_curve.h"
#include "common/output_file.h"
#include "common/tool_error.h"
#include "enhance/automatic.h"
#include "enhance/frame_dump.h"
#include "enhance/overlay.h"
#include "enhance/pass_times.h"
#include "enhance/progress.h"
#include "enhance/resume.h"
#include "enhance/rgba_session.h"
#include "enhance/statistics.h"
#include "enhance/still.h"
#include "findings/clip_meter.h"
#include "media/clip_input.h"
#include "media/nv21_frame.h"
#include "media/picture.h"
#include "media/remux.h"
#include "media/video_writer.h"
#include "noxel/enhancer.h"
#include "report/report.h"

namespace noxel::tool {
namespace {

void checkLook(const EnhanceOptions& options) {
  const auto given = [&](const char* name) {
    return std::find(options.given.begin(), options.given.end(), name) != options.given.end();
  };
  const int mode = options.look.engineMode;
  if (options.look.neutralExposure && mode != NOXEL_MODE_ENHANCE && mode != NOXEL_MODE_NEUTRAL_EXPOSURE &&
      mode != NOXEL_MODE_CLEAR) {
    throw ToolError(kExitUsage, "--neutral-exposure has no effect in --engine-mode " + std::to_string(mode));
  }
  checkIsRead(options.look, options.given);
  if (given("--picture-frame") && options.pictureFile.empty()) {
    throw ToolError(kExitUsage, "--picture-frame needs --picture");
  }
  if (options.overlay) checkIsRead(options.look, {"--overlay"});
  if (options.explain && !options.automatic) throw ToolError(kExitUsage, "--explain needs --auto");
}

void checkOutputs(const EnhanceOptions& options) {
  std::string output = options.output;
  if (!isStill(output)) {
    const Container& container = containerOf(output);
    checkChoice(options.encoding, container);
    if (isPictures(container)) output = numberedPath(output, 1);
    if (options.resume && (isPictures(container) || output == "-")) {
      throw ToolError(kExitUsage, "--resume is for outputs of one file, not for " +
                                      std::string(output == "-" ? "standard output" : "numbered pictures"));
    }
  }
  if (options.reportFile == "-") throw ToolError(kExitUsage, "--report needs a file name");
  const bool overwrite = options.overwrite || options.resume;
  checkOutputFiles(options.input, {output, options.statsFile, options.pictureFile, options.reportFile}, overwrite);
  checkMayDump(options.dumpFolder, overwrite);
}

Choice lookAndChoose(const EnhanceOptions& options, ClipInput& clip) {
  const auto start = std::chrono::steady_clock::now();
  const Findings found = canReopen(options.input) ? lookAtFile(options.input, options.range) : lookAtFirstFrames(clip);
  Choice choice = choose(found, options);
  choice.lookSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return choice;
}

void explain(const Choice& choice, const EnhanceOptions& options) {
  if (!options.quiet) std::fprintf(stderr, "noxel: note: found: %s\n", inWords(choice.found).c_str());
  if (!options.explain) return;
  for (const std::string& reason : choice.reasons) std::fprintf(stderr, "noxel: because: %s\n", reason.c_str());
}

EnhancerSettings enhancerSettings(const EnhanceOptions& options, const ClipInput& clip) {
  EnhancerSettings settings;
  settings.width = clip.nv21Width();
  settings.height = clip.nv21Height();
  settings.nominalIntervalUs = clip.reader().nominalIntervalUs();
  settings.look = options.look;
  settings.warmUp = options.warmUp;
  settings.overlay = options.overlay || (!options.dumpFolder.empty() && isRead(options.look, "--overlay"));
  settings.passes = options.passes || !options.statsFile.empty();
  return settings;
}

// One run over a clip that stands at its first frame.
class Run {
 public:
  Run(const EnhanceOptions& options, std::optional<Choice> choice, ClipInput& clip, Progress::Clock::time_point start)
      : options_(choice ? applied(*choice, options) : options),
        choice_(std::move(choice)),
        clip_(clip),
        writer_(outputSettings()),
        picture_(options.pictureFrame),
        progress_(options.quiet, options.shownOnTerminal || isatty(STDERR_FILENO) != 0,
                  clip_.reader().expectedFrames()) {
    progress_.startedAt(start);
    if (!options.reportFile.empty()) {
      const VideoReader& reader = clip_.reader();
      report_.emplace(options_.look, Report::Shape{clip_.width(), clip_.height(),
                                                   reader.sampleAspectRatio(clip_.frame()), reader.displayMatrix()});
    }
    if (choice_ && choice_->leaveAlone) note(leftAloneNote(false));
    if (clip_.highDynamicRange()) note(toneMapNote());
    if (clip_.reader().interlaced()) note(deinterlaceNote());
    if (!options.dumpFolder.empty()) dump_.emplace(options.dumpFolder);
    if (!options.statsFile.empty()) statisticsFile_.emplace(options.statsFile, knownAtStart());
  }

  void enhanceAll(Enhancer& enhancer);
  ExitCode finish();  // the run's exit code

 private:
  OutputSettings outputSettings() const;
  struct Sent;
  void keepSent();
  void finishFrame(const Enhancer& enhancer, const Sent& sent);
  void note(const std::string& text);
  std::string partialComment() const;
  nlohmann::ordered_json knownAtStart() const;
  nlohmann::ordered_json knownAtEnd(double seconds) const;
  void writeReport(double seconds) const;

  const EnhanceOptions options_;
  const std::optional<Choice> choice_;  // from a look at the clip
  ClipInput& clip_;
  VideoWriter writer_;
  PictureKeeper picture_;
  Statistics statistics_;
  std::optional<StatisticsFile> statisticsFile_;
  PassTimes passTimes_;
  Progress progress_;
  std::optional<FrameDump> dump_;
  std::optional<Report> report_;
  bool stopped_ = false;    // before the end of the clip
  double lastSeconds_ = 0;  // time stamp of the latest frame written

  // What is to be known of a frame when it comes back.
  struct Sent {
    int64_t pts;
    int64_t duration;
    FramePtr planar;       // in the clip's colours; null where nobody asks for it, as the next
    FramePtr engineFrame;  // in the engine's, padded
    double seconds;
    double meanLuma;
    Histogram luma;
    std::vector<PacketPtr> beside;  // packets read with it
  };
  std::deque<Sent> sent_;
  std::vector<uint8_t> nv21_;  // the frame that came back
};

OutputSettings Run::outputSettings() const {
  const VideoReader& reader = clip_.reader();
  OutputSettings settings;
  settings.path = options_.output;
  settings.encoding = options_.encoding;
  settings.video = {clip_.width(),
                    clip_.height(),
                    reader.timeBase(),
                    reader.frameRate(),
                    reader.sampleAspectRatio(clip_.frame()),
                    clip_.colours().tags(),
                    reader.codec()};
  settings.displayMatrix = reader.displayMatrix();
  settings.companions = reader.companions();
  return settings;
}

void Run::note(const std::string& text) {
  if (report_) report_->addNote(text);
  if (options_.quiet) return;
  progress_.clear();
  std::fprintf(stderr, "noxel: note: %s\n", text.c_str());
}

void Run::enhanceAll(Enhancer& enhancer) {
  // Frames in the enhancer beside those that wait for later ones: it works while others are read and written.
  constexpr size_t kFramesAtWork = 3;
  enhancer.setLook(options_.look);
  for (const std::string& text : writer_.notes()) note(text);
  const size_t notesBefore = writer_.notes().size();
  nv21_.resize(clip_.nv21().size());

  bool more = true;
  for (bool needsMore = true; more || !sent_.empty();) {
    while (more && (needsMore || sent_.size() <= static_cast<size_t>(enhancer.latency()) + kFramesAtWork)) {
      if (!enhancer.send(clip_.nv21().data(), clip_.microseconds())) break;
      keepSent();
      needsMore = false;
      more = clip_.next();
      if (!more) enhancer.finish();
    }
    if (stopRequested() && statistics_.count() > 0) break;
    needsMore = !enhancer.receive(nv21_.data());
    if (const std::string text = enhancer.takeNote(); !text.empty()) note(text);
    if (needsMore) {
      if (!more) throw ToolError(kExitFailed, "the engine lost frames");
      continue;
    }
    finishFrame(enhancer, sent_.front());
    sent_.pop_front();
    progress_.frameDone(static_cast<int64_t>(statistics_.count()));
  }
  if (!stopRequested()) {
    for (const PacketPtr& packet : clip_.takeBeside()) writer_.writeBeside(*packet);
  }
  stopped_ = stopRequested();
  if (stopped_) writer_.markPartial(partialComment());
  writer_.finish();
  for (size_t i = notesBefore; i < writer_.notes().size(); ++i) note(writer_.notes()[i]);
}

std::string Run::partialComment() const {
  const int64_t expected = clip_.reader().expectedFrames();
  char seconds[32];
  std::snprintf(seconds, sizeof(seconds), "%.2f", lastSeconds_);
  return kPartialMark + std::to_string(statistics_.count()) +
         (expected > 0 ? " of about " + std::to_string(expected) : "") + ", at " + seconds + " s";
}

void Run::keepSent() {
  Sent sent = {};
  sent.pts = clip_.frame().pts;
  sent.duration = clip_.frame().pkt_duration;
  sent.seconds = clip_.seconds();
  if (options_.compare) sent.planar = share(clip_.planar());
  if (dump_ || report_ || !options_.pictureFile.empty()) sent.engineFrame = share(clip_.engineFrame());
  sent.meanLuma = meanLuma(clip_.nv21().data(), clip_.nv21Width(), clip_.width(), clip_.height());
  addPlane(clip_.nv21().data(), clip_.width(), clip_.height(), clip_.nv21Width(), &sent.luma);
  sent.beside = clip_.takeBeside();
  sent_.push_back(std::move(sent));
}

void Run::finishFrame(const Enhancer& enhancer, const Sent& sent) {
  const auto index = static_cast<int64_t>(statistics_.count());
  uint8_t* const nv21 = nv21_.data();
  const int width = clip_.nv21Width();
  const int height = clip_.nv21Height();
  FrameStatistics statistics;
  statistics.seconds = sent.seconds;
  statistics.lumaBefore = sent.meanLuma;
  statistics.totalMs = enhancer.totalMs();
  statistics.report = enhancer.report();
  statistics.noiseSigma = noiseSigma(statistics.report.noise, sent.luma);
  enhancer.addPasses(passTimes_);
  passTimes_.endFrame();
  statistics.lumaAfter = meanLuma(nv21, width, clip_.width(), clip_.height());
  Overlay overlay;
  if (options_.overlay || dump_) overlay = enhancer.overlay();
  if (options_.overlay) drawOverlay(overlay, nv21, width, height);

  FramePtr enhanced = unpackNv21(nv21, width, height);
  if (dump_) {
    dump_->picture(index, "before", *sent.engineFrame, clip_.width(), clip_.height());
    dump_->picture(index, "after", *enhanced, clip_.width(), clip_.height());
    if (!overlay.mask.empty()) {
      dump_->grey(index, "mask", overlay.mask.data(), overlay.maskWidth, overlay.maskHeight);
    }
  }
  FramePtr output = clip_.colours().fromEngine(*enhanced);
  crop(*output, clip_.width(), clip_.height());
  if (options_.compare) {
    if (av_frame_make_writable(output.get()) < 0) throw std::bad_alloc();
    copyLeftHalf(*sent.planar, *output);
  }
  writer_.write(*output, sent.pts, sent.duration);
  for (const PacketPtr& packet : sent.beside) writer_.writeBeside(*packet);
  lastSeconds_ = sent.seconds;

  const bool kept = !options_.pictureFile.empty() && picture_.wants(index);
  const bool shown = report_ && report_->wantsPictures(index);
  if (kept || shown) {
    FramePtr input = share(*sent.engineFrame);
    crop(*input, clip_.width(), clip_.height());
    crop(*enhanced, clip_.width(), clip_.height());
    if (shown) report_->addPictures(index, sent.seconds, *input, *enhanced);
    if (kept) picture_.keep(std::move(input), std::move(enhanced));
  }
  if (report_) report_->add(statistics);
  if (statisticsFile_) statisticsFile_->add(frameJson(statistics_.count(), statistics));
  statistics_.add(statistics);
}

nlohmann::ordered_json Run::knownAtStart() const {
  nlohmann::ordered_json json = {
      {"noxel", noxel_version()},
      {"input",
       {{"file", options_.input},
        {"codec", clip_.reader().codecName()},
        {"width", clip_.width()},
        {"height", clip_.height()},
        {"frame_rate", av_q2d(clip_.reader().frameRate())},
        {"matrix", av_color_space_name(clip_.colours().matrix())},
        {"range", av_color_range_name(clip_.colours().range())},
        {"audio_streams", clip_.reader().audioStreams()},
        {"start", static_cast<double>(options_.range.startUs) / 1e6},
        {"duration", options_.range.durationUs
                         ? nlohmann::ordered_json(static_cast<double>(*options_.range.durationUs) / 1e6)
                         : nullptr}}},
      {"options",
       {{"engine_mode", options_.look.mode()},
        {"denoise", options_.look.denoise},
        {"quality", kQualityNames[options_.look.quality]},
        {"strength", options_.look.strength},
        {"exposure", options_.look.exposure},
        {"deghosting", options_.look.deghosting},
        {"neutral_exposure", options_.look.neutralExposure || options_.look.mode() == NOXEL_MODE_NEUTRAL_EXPOSURE},
        {"stabilize", options_.look.stabilize},
        {"sharpening", options_.look.sharpening},
        {"contrast", options_.look.contrast},
        {"zoom", options_.look.zoom},
        {"flip_chroma", options_.look.flipChroma},
        {"enhanced_quad", options_.look.enhancedQuad},
        {"untouched_quad", options_.look.untouchedQuad},
        {"compare", options_.compare},
        {"overlay", options_.overlay},
        {"warm_up", options_.warmUp && (followsExposure(options_.look) || leadsIn(options_.look))},

        {"crf", writer_.crf() ? nlohmann::ordered_json(*writer_.crf()) : nullptr}}}};
  if (choice_) {
    json["found"] = jsonOf(choice_->found);
    json["chosen"] = jsonOf(*choice_);
  }
  return json;
}

void Run::writeReport(double seconds) const {
  nlohmann::ordered_json about = knownAtStart();
  nlohmann::ordered_json end = knownAtEnd(seconds);
  about["output"] = std::move(end["output"]);
  about["settings"] = settingsOf(options_.look, options_.given);
  const std::string page = report_->page(std::move(about), std::move(end["passes"]), seconds);
  writeWholeFile(options_.reportFile, page.data(), page.size());
}

nlohmann::ordered_json Run::knownAtEnd(double seconds) const {
  return {{"output", {{"file", options_.output}, {"encoder", writer_.encoderName()}, {"stopped_early", stopped_}}},
          {"summary", statistics_.summary(seconds)},
          {"passes", passTimes_.json()}};
}

ExitCode Run::finish() {
  const double seconds = progress_.seconds();
  progress_.clear();
  if (!options_.pictureFile.empty()) picture_.write(options_.pictureFile);
  if (statisticsFile_) statisticsFile_->finish(knownAtEnd(seconds));
  if (clip_.reader().damagedPackets() > 0) {
    note(std::to_string(clip_.reader().damagedPackets()) + " damaged packets of the input could not be decoded");
  }
  if (clip_.reader().lateAudio()) note("audio that starts in mid-clip is dropped");
  const auto found = static_cast<int64_t>(statistics_.count());
  if (!stopped_ && clip_.reader().isCutShort(found)) {
    note("the clip ends after " + std::to_string(found) + " of about " +
         std::to_string(clip_.reader().expectedFrames()) + " frames; it may have been cut short");
  }
  if (stopped_) note(partialComment() + "; the output is whole up to there");
  if (report_) writeReport(seconds);
  if (options_.passes) passTimes_.print(stderr);
  const ExitCode code = stopped_ ? stoppedExitCode() : kExitFine;
  if (options_.quiet) return code;
  const auto frames = static_cast<double>(statistics_.count());
  std::fprintf(stderr, "%zu frames in %.1f s (%.1f fps), mean luma %.1f -> %.1f: %s\n", statistics_.count(), seconds,
               seconds > 0 ? frames / seconds : 0.0, statistics_.meanLumaBefore(), statistics_.meanLumaAfter(),
               options_.output == "-" ? "standard output" : options_.output.c_str());
  return code;
}

}  // namespace

std::unique_ptr<Enhancer> makeSession(const EnhancerSettings& settings) {
  if (settings.look.mode() == NOXEL_MODE_PICTURE) return std::make_unique<RgbaSession>(settings);
  return std::make_unique<EnhancerSession>(settings);
}

int runEnhance(const EnhanceOptions& options) {
  return runEnhance(options, makeSession);
}

void checkEnhance(const EnhanceOptions& options) {
  checkLook(options);
  checkOutputs(options);
}

int runEnhance(const EnhanceOptions& options, const EnhancerFactory& factory) {
  const auto start = Progress::Clock::now();
  checkEnhance(options);
  if (options.resume && leaveWhole(options)) return kExitFine;
  if (isStill(options.output)) return runStill(options);
  ClipInput clip(options.input, options.range);
  // The engine takes as long to start as the clip to look at.
  std::future<std::unique_ptr<Enhancer>> enhancer =
      std::async(std::launch::async | std::launch::deferred, factory, enhancerSettings(options, clip));
  std::optional<Choice> choice;
  if (options.automatic) {
    choice = lookAndChoose(options, clip);
    explain(*choice, options);
    if (choice->leaveAlone && canReopen(options.input) && copyLeftAlone(options)) {
      if (!options.quiet) std::fprintf(stderr, "noxel: note: %s\n", leftAloneNote(true).c_str());
      return kExitFine;
    }
  }
  Run run(options, std::move(choice), clip, start);
  run.enhanceAll(*enhancer.get());
  return run.finish();
}

}  // namespace noxel::tool
