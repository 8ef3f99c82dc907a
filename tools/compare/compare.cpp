#include "compare/compare.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <system_error>
#include <vector>

#include "common/interrupt.h"
#include "common/output_file.h"
#include "common/standard_streams.h"
#include "common/tool_error.h"
#include "compare/scores.h"
#include "media/clip_input.h"
#include "media/nv21_frame.h"
#include "noxel/enhancer.h"

namespace noxel::tool {
namespace {

using Json = nlohmann::ordered_json;

constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

std::string nameOf(const std::string& path) {
  return path == "-" ? "standard input" : path;
}

void note(const std::string& text) {
  std::fprintf(stderr, "noxel: note: %s\n", text.c_str());
}

// Of a frame, or the mean over frames. NaN: not measured.
struct Score {
  double lumaError = kUnknown;  // mean squared
  double chromaError = kUnknown;
  double ssim = kUnknown;
  double flicker = kUnknown;

  double luma() const { return std::isnan(lumaError) ? kUnknown : psnr(lumaError); }
  double chroma() const { return std::isnan(chromaError) ? kUnknown : psnr(chromaError); }
};

struct FrameScore {
  double seconds = 0;
  double meanLuma = 0;
  double meanReference = 0;
  Score plain;
  Score aligned;
  Score lifted;  // against the original: luma and SSIM
};

double meanOf(const std::vector<FrameScore>& frames, const std::function<double(const FrameScore&)>& value) {
  double sum = 0, count = 0;
  for (const FrameScore& frame : frames) {
    if (const double one = value(frame); !std::isnan(one)) sum += one, ++count;
  }
  return count > 0 ? sum / count : kUnknown;
}

Score meanOf(const std::vector<FrameScore>& frames, Score FrameScore::*which) {
  const auto mean = [&](double Score::*member) {
    return meanOf(frames, [=](const FrameScore& frame) { return frame.*which.*member; });
  };
  return {mean(&Score::lumaError), mean(&Score::chromaError), mean(&Score::ssim), mean(&Score::flicker)};
}

PlaneView planeOf(const ClipInput& clip, int plane) {
  const int width = plane == 0 ? clip.width() : (clip.width() + 1) / 2;
  const int height = plane == 0 ? clip.height() : (clip.height() + 1) / 2;
  return {clip.engineFrame().data[plane], clip.engineFrame().linesize[plane], width, height};
}

// The clips of a comparison, frame by frame.
class Clips {
 public:
  explicit Clips(const std::vector<std::string>& paths) : paths_(paths) {
    for (const std::string& path : paths) {
      clips_.push_back(std::make_unique<ClipInput>(path, TimeRange{}, Fields::kAsTheyAre));
      starts_.push_back(clips_.back()->seconds());
      checkSize(clips_.size() - 1);
    }
  }

  const ClipInput& operator[](size_t clip) const { return *clips_[clip]; }
  int64_t index() const { return index_; }

  // Whether all clips have another frame.
  bool next() {
    std::vector<bool> more;
    for (const auto& clip : clips_) more.push_back(clip->next());
    if (stopRequested()) throw ToolError(stoppedExitCode(), "stopped before the end; nothing was scored");
    ++index_;
    for (size_t i = 0; i < more.size(); ++i) {
      if (!more[i]) ended_.push_back(i);
    }
    if (!ended_.empty()) return false;
    for (size_t i = 1; i < clips_.size(); ++i) {
      const double difference = std::abs(clips_[i]->seconds() - starts_[i] - (clips_[0]->seconds() - starts_[0]));
      maxDifference_ = std::max(maxDifference_, difference);
    }
    return true;
  }

  // At the end, once.
  void tellWhatDiffers() const {
    for (size_t i = 0; i < clips_.size(); ++i) {
      if (clips_[i]->highDynamicRange()) note(nameOf(paths_[i]) + ": " + toneMapNote());
      if (const int damaged = clips_[i]->reader().damagedPackets(); damaged > 0) {
        note(std::to_string(damaged) + " damaged packets of " + nameOf(paths_[i]) + " could not be decoded");
      }
    }
    if (ended_.size() < clips_.size()) {
      for (const size_t i : ended_) {
        note(nameOf(paths_[i]) + " ends after " + std::to_string(index_) +
             " frames, others go on; what they have beyond is left out");
      }
    }
    const auto interval = static_cast<double>(clips_[0]->reader().nominalIntervalUs()) * 1e-6;
    if (maxDifference_ <= interval / 2) return;
    char seconds[32];
    std::snprintf(seconds, sizeof(seconds), "%.3f", maxDifference_);
    note("frames are matched by their number, and their time stamps differ by up to " + std::string(seconds) + " s");
  }

  Json about(size_t clip) const {
    return {{"file", paths_[clip]},
            {"width", clips_[clip]->width()},
            {"height", clips_[clip]->height()},
            {"frame_rate", av_q2d(clips_[clip]->reader().frameRate())}};
  }

 private:
  void checkSize(size_t i) const {
    const ClipInput& one = *clips_[0];
    const ClipInput& other = *clips_[i];
    if (one.width() == other.width() && one.height() == other.height()) return;
    const auto size = [](const ClipInput& clip) {
      return std::to_string(clip.width()) + " x " + std::to_string(clip.height());
    };
    throw ToolError(kExitUsage, nameOf(paths_[0]) + " is " + size(one) + ", " + nameOf(paths_[i]) + " " + size(other) +
                                    "; scale one of them first");
  }

  const std::vector<std::string> paths_;
  std::vector<std::unique_ptr<ClipInput>> clips_;
  std::vector<double> starts_;
  std::vector<size_t> ended_;
  double maxDifference_ = 0;  // of the time stamps of frames with the same number, in seconds
  int64_t index_ = 0;
};

// One clip under test.
class Contestant {
 public:
  // First all frames: what the tone is.
  void learn(const ClipInput& clip, const ClipInput& reference, const ClipInput* original) {
    luma_.add(planeOf(clip, 0), planeOf(reference, 0));
    for (const int plane : {1, 2}) chroma_[plane - 1].add(planeOf(clip, plane), planeOf(reference, plane));
    if (original != nullptr) lifted_.add(planeOf(clip, 0), planeOf(*original, 0));
  }
  void fit() {
    tone_ = luma_.fitted();
    liftedTone_ = lifted_.fitted();
    for (size_t plane = 0; plane < 2; ++plane) lines_[plane] = fittedLine(chroma_[plane]);
    aligned_ = true;
  }

  // Then all of them again. The similarities have their references; null: not measured for this frame.
  void score(const ClipInput& clip, const ClipInput& reference, const ClipInput* original,
             StructuralSimilarity* toReference, StructuralSimilarity* toOriginal) {
    FrameScore frame;
    const PlaneView luma = planeOf(clip, 0), target = planeOf(reference, 0);
    frame.seconds = clip.seconds();
    frame.meanLuma = meanLuma(luma.samples, static_cast<int>(luma.stride), luma.width, luma.height);
    frame.meanReference = meanLuma(target.samples, static_cast<int>(target.stride), target.width, target.height);
    const auto measure = [&](Score& score, ErrorSequence& errors, const ToneTable& tone) {
      const ErrorSequence::Errors found = errors.next(luma, target, tone);
      score.lumaError = found.meanSquared;
      score.flicker = found.flicker;
      if (toReference != nullptr) score.ssim = toReference->of(luma, tone);
    };
    measure(frame.plain, plainErrors_, sameTone());
    if (aligned_) measure(frame.aligned, alignedErrors_, tone_);
    frame.plain.chromaError = frame.aligned.chromaError = 0;
    for (const int plane : {1, 2}) {
      ChromaSums sums;
      sums.add(planeOf(clip, plane), planeOf(reference, plane));
      frame.plain.chromaError += meanSquaredError(sums, {}) / 2;
      frame.aligned.chromaError += meanSquaredError(sums, lines_[plane - 1]) / 2;
    }
    if (!aligned_) frame.aligned.chromaError = kUnknown;
    if (original != nullptr) {
      frame.lifted.lumaError = ErrorSequence().next(luma, planeOf(*original, 0), liftedTone_).meanSquared;
      if (toOriginal != nullptr) frame.lifted.ssim = toOriginal->of(luma, liftedTone_);
    }
    frames_.push_back(frame);
  }

  const std::vector<FrameScore>& frames() const { return frames_; }
  const ToneTable& tone() const { return tone_; }
  Score plain() const { return meanOf(frames_, &FrameScore::plain); }
  Score aligned() const { return meanOf(frames_, &FrameScore::aligned); }
  Score lifted() const { return meanOf(frames_, &FrameScore::lifted); }
  double meanLumaOfClip() const {
    return meanOf(frames_, [](const FrameScore& frame) { return frame.meanLuma; });
  }
  double meanLumaOfReference() const {
    return meanOf(frames_, [](const FrameScore& frame) { return frame.meanReference; });
  }

 private:
  JointHistogram luma_;
  JointHistogram lifted_;
  ChromaSums chroma_[2];
  ToneTable tone_ = sameTone();
  ToneTable liftedTone_ = sameTone();
  ChromaLine lines_[2];
  bool aligned_ = false;
  ErrorSequence plainErrors_;
  ErrorSequence alignedErrors_;
  std::vector<FrameScore> frames_;
};

// Four digits: more than was measured.
Json rounded(double value) {
  return std::isnan(value) ? Json(nullptr) : Json(std::round(value * 1e4) / 1e4);
}

Json jsonOf(const Score& score) {
  return {{"psnr_luma", rounded(score.luma())},
          {"psnr_chroma", rounded(score.chroma())},
          {"ssim", rounded(score.ssim)},
          {"flicker", rounded(score.flicker)}};
}

Json jsonOfLifted(const Score& score) {
  return {{"psnr_luma", rounded(score.luma())}, {"ssim", rounded(score.ssim)}};
}

class Comparison {
 public:
  Comparison(const CompareOptions& options, std::FILE* out)
      : options_(options), out_(out), table_(options.jsonFile == "-" ? stderr : out) {
    paths_ = {options.clip, options.reference};
    if (!options.input.empty()) paths_.push_back(options.input);
    if (!options.original.empty()) paths_.push_back(options.original);
    contestants_.resize(options.input.empty() ? 1 : 2);
  }

  void run() {
    if (options_.tone) learn();
    score();
    printTable();
    if (!options_.jsonFile.empty()) writeJson();
  }

 private:
  const ClipInput* originalOf(const Clips& clips) const {
    return options_.original.empty() ? nullptr : &clips[paths_.size() - 1];
  }
  static const ClipInput& clipOf(const Clips& clips, size_t contestant) { return clips[contestant == 0 ? 0 : 2]; }

  void learn() {
    Clips clips(paths_);
    do {
      if (clips.index() < options_.fromFrame) continue;
      for (size_t i = 0; i < contestants_.size(); ++i) {
        contestants_[i].learn(clipOf(clips, i), clips[1], originalOf(clips));
      }
    } while (clips.next());
    for (Contestant& contestant : contestants_) contestant.fit();
  }

  void score() {
    Clips clips(paths_);
    StructuralSimilarity toReference, toOriginal;
    do {
      if (clips.index() < options_.fromFrame) continue;
      const ClipInput* original = originalOf(clips);
      const bool ssim = (clips.index() - options_.fromFrame) % options_.ssimEvery == 0;
      if (ssim) toReference.setReference(planeOf(clips[1], 0));
      if (ssim && original != nullptr) toOriginal.setReference(planeOf(*original, 0));
      for (size_t i = 0; i < contestants_.size(); ++i) {
        contestants_[i].score(clipOf(clips, i), clips[1], original, ssim ? &toReference : nullptr,
                              ssim ? &toOriginal : nullptr);
      }
    } while (clips.next());
    clips.tellWhatDiffers();
    if (contestants_[0].frames().empty()) {
      throw ToolError(kExitUsage, "there is no frame " + std::to_string(options_.fromFrame) + ": the clips have only " +
                                      std::to_string(clips.index()) + " together");
    }
    for (size_t i = 0; i < paths_.size(); ++i) about_.push_back(clips.about(i));
  }

  void printRow(const std::string& name, const Score& score, const Score& lifted) const {
    const auto cell = [&](double value, int decimals, int width) {
      char text[32] = "-";
      if (!std::isnan(value)) std::snprintf(text, sizeof(text), "%.*f", decimals, value);
      std::fprintf(table_, "%*s", width, text);
    };
    std::fprintf(table_, "%-22s", name.c_str());
    cell(score.luma(), 2, 9);
    cell(score.chroma(), 2, 11);
    cell(score.ssim, 4, 9);
    cell(score.flicker, 3, 9);
    if (!options_.original.empty()) cell(lifted.ssim, 4, 13);
    std::fprintf(table_, "\n");
  }

  void printTable() const {
    const Contestant& clip = contestants_[0];
    const char* lifted = options_.original.empty() ? "" : "  SSIM lifted";
    if (options_.perFrame) {
      std::fprintf(table_, "%-22s  luma dB  chroma dB     SSIM  flicker%s\n",
                   options_.tone ? "frame, tone-aligned" : "frame", lifted);
      for (size_t i = 0; i < clip.frames().size(); ++i) {
        const FrameScore& frame = clip.frames()[i];
        char name[64];
        std::snprintf(name, sizeof(name), "%6lld %12.3f s",
                      static_cast<long long>(options_.fromFrame + static_cast<int64_t>(i)), frame.seconds);
        printRow(name, options_.tone ? frame.aligned : frame.plain, frame.lifted);
      }
      std::fprintf(table_, "\n");
    }
    std::fprintf(table_, "%zu frames, mean luma %.1f, of the reference %.1f\n", clip.frames().size(),
                 clip.meanLumaOfClip(), clip.meanLumaOfReference());
    std::fprintf(table_, "%-22s  luma dB  chroma dB     SSIM  flicker%s\n", "", lifted);
    printRow("as it is", clip.plain(), {});
    if (options_.tone) printRow("tone-aligned", clip.aligned(), clip.lifted());
    if (contestants_.size() < 2) return;
    const Contestant& input = contestants_[1];
    printRow(options_.tone ? "input, tone-aligned" : "input", scoreOf(input), input.lifted());
    const Score from = scoreOf(input), to = scoreOf(clip);
    std::fprintf(table_, "%-22s%+9.2f%+11.2f%+9.4f", "gain", to.luma() - from.luma(), to.chroma() - from.chroma(),
                 to.ssim - from.ssim);
    if (const double share = to.flicker / from.flicker; std::isfinite(share)) {
      std::fprintf(table_, "%4sx%.2f", "", share);
    } else {
      std::fprintf(table_, "%9s", "-");
    }
    if (*lifted != 0) std::fprintf(table_, "%+13.4f", clip.lifted().ssim - input.lifted().ssim);
    std::fprintf(table_, "\n");
  }

  Score scoreOf(const Contestant& contestant) const {
    return options_.tone ? contestant.aligned() : contestant.plain();
  }

  Json summaryOf(const Contestant& contestant) const {
    Json summary = {{"mean_luma", rounded(contestant.meanLumaOfClip())}};
    summary.update(jsonOf(contestant.plain()));
    if (options_.tone) summary["aligned"] = jsonOf(contestant.aligned());
    if (!options_.original.empty()) summary["lifted"] = jsonOfLifted(contestant.lifted());
    return summary;
  }

  Json gains() const {
    const Contestant &clip = contestants_[0], &input = contestants_[1];
    const Score from = scoreOf(input), to = scoreOf(clip);
    const double share = to.flicker / from.flicker;
    Json gains = {{"psnr_luma", rounded(to.luma() - from.luma())},
                  {"psnr_chroma", rounded(to.chroma() - from.chroma())},
                  {"ssim", rounded(to.ssim - from.ssim)},
                  {"flicker_share", std::isfinite(share) ? rounded(share) : Json(nullptr)}};
    if (!options_.original.empty()) gains["lifted_ssim"] = rounded(clip.lifted().ssim - input.lifted().ssim);
    return gains;
  }

  void writeJson() const {
    const Contestant& clip = contestants_[0];
    Json json = {{"noxel", noxel_version()}, {"clip", about_[0]}, {"reference", about_[1]}};
    if (!options_.input.empty()) json["input"] = about_[2];
    if (!options_.original.empty()) json["original"] = about_.back();
    json["options"] = {{"from_frame", options_.fromFrame}, {"tone", options_.tone}, {"ssim_every", options_.ssimEvery}};
    Json summary = {{"frames", clip.frames().size()}, {"mean_luma_reference", rounded(clip.meanLumaOfReference())}};
    summary.update(summaryOf(clip));
    if (contestants_.size() > 1) {
      summary["input"] = summaryOf(contestants_[1]);
      summary["gain"] = gains();
    }
    json["summary"] = std::move(summary);
    if (options_.tone) {
      json["tone_table"] = Json::array();
      for (const double level : clip.tone()) json["tone_table"].push_back(rounded(level));
    }
    json["frames"] = Json::array();
    for (size_t i = 0; i < clip.frames().size(); ++i) {
      const FrameScore& frame = clip.frames()[i];
      Json row = {{"index", options_.fromFrame + static_cast<int64_t>(i)},
                  {"time", frame.seconds},
                  {"mean_luma", rounded(frame.meanLuma)},
                  {"mean_luma_reference", rounded(frame.meanReference)}};
      row.update(jsonOf(frame.plain));
      if (options_.tone) row["aligned"] = jsonOf(frame.aligned);
      if (!options_.original.empty()) row["lifted"] = jsonOfLifted(frame.lifted);
      json["frames"].push_back(std::move(row));
    }
    const std::string text = json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
    if (options_.jsonFile != "-") {
      writeWholeFile(options_.jsonFile, text.data(), text.size());
      return;
    }
    std::fwrite(text.data(), 1, text.size(), out_);
    flushStandardOutput(out_);
  }

  const CompareOptions& options_;
  std::FILE* const out_;
  std::FILE* const table_;
  std::vector<std::string> paths_;       // the clip, the reference, then the input and the original where given
  std::vector<Contestant> contestants_;  // the clip, and the input where given
  std::vector<Json> about_;              // by path
};

void checkInputs(const CompareOptions& options) {
  if (!options.tone && !options.original.empty()) {
    throw ToolError(kExitUsage, "--original is compared by tone; not with --no-tone");
  }
  int pipes = 0;
  for (const std::string& path : {options.clip, options.reference, options.input, options.original}) {
    std::error_code ignored;
    const bool pipe =
        path == "-" || (std::filesystem::exists(path, ignored) && !std::filesystem::is_regular_file(path, ignored));
    if (pipe && options.tone) {
      throw ToolError(kExitUsage, nameOf(path) + " is not a file, but is to be read twice; --no-tone reads it once");
    }
    if (path == "-" && ++pipes > 1) throw ToolError(kExitUsage, "standard input can be one clip only");
    checkOutputFiles(path, {options.jsonFile}, options.overwrite);
  }
}

}  // namespace

int runCompare(const CompareOptions& options, std::FILE* out) {
  checkInputs(options);
  Comparison(options, out).run();
  return kExitFine;
}

}  // namespace noxel::tool
