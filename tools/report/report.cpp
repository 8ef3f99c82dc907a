#include "report/report.h"

extern "C" {
#include <libavutil/base64.h>
}

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "media/colour_conversion.h"
#include "media/picture.h"
#include "report/page.h"

namespace noxel::tool {
namespace {

using Json = nlohmann::ordered_json;

// Of a picture on the page. Its sides shrink, in pixels, where even the coarsest quantiser scale leaves too many bytes.
constexpr int kMaxSides[] = {960, 720, 480, 240};
constexpr int kJpegScales[] = {2, 3, 5, 8, 12};
constexpr size_t kMaxPictureBytes = 170'000;  // 12 of them in base64 are 2.7 MB
constexpr size_t kMaxNotes = 50;
constexpr int kToneLevels[] = {16, 32, 64, 128};  // of luma as it came, of which the page shows what becomes of them
constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();
constexpr const char* kModeNames[] = {"0, mean of three frames",
                                      "1, denoise and brighten",
                                      "2, stabilise and sharpen",
                                      "3, denoise",
                                      "4, detail and contrast of single pictures",
                                      "5, the clear picture"};

std::string toneName(int level) {
  return "tone_" + std::to_string(level);
}

std::vector<std::string> seriesNames() {
  std::vector<std::string> names = {"luma_before", "luma_after", "noise", "motion", "correction"};
  for (const int level : kToneLevels) names.push_back(toneName(level));
  return names;
}

// How far the matrix moves the middle of the picture, pixels.
double shiftOfMiddle(const float (&m)[9], const Report::Shape& shape) {
  const double x = shape.width / 2.0, y = shape.height / 2.0;
  const auto row = [&](int r) {
    return static_cast<double>(m[3 * r]) * x + static_cast<double>(m[3 * r + 1]) * y +
           static_cast<double>(m[3 * r + 2]);
  };
  return std::hypot(row(0) / row(2) - x, row(1) / row(2) - y);
}

// What luma of this level becomes. NaN: the mode's tone is not known.
double toneOf(const FrameReport& report, int mode, int level) {
  if (mode == NOXEL_MODE_CLEAR) return static_cast<double>(report.toneLevels[level]);
  if (mode != NOXEL_MODE_ENHANCE && mode != NOXEL_MODE_NEUTRAL_EXPOSURE) return kUnknown;
  const double lifted = std::min(1.0, static_cast<double>(report.gain) * level / 255);
  return 255 * std::pow(lifted, static_cast<double>(report.gamma));
}

// As displayed, and no side longer than this.
std::string shownBy(const Report::Shape& shape, int maxSide) {
  const AVRational aspect = shape.sampleAspectRatio;
  double width = shape.width, height = shape.height;
  if (aspect.num > 0 && aspect.den > 0) width *= av_q2d(aspect);
  const double scale = std::min(1.0, maxSide / std::max(width, height));
  const auto side = [&](double length) { return std::to_string(std::max(1L, std::lround(scale * length))); };
  const std::string turn = uprighting(shape.matrix).filters;
  return "scale=" + side(width) + ":" + side(height) + ":flags=area+accurate_rnd" + (turn.empty() ? "" : "," + turn);
}

Json timesRow(const char* stage, const Spread& ms) {
  return {{"stage", stage}, {"mean", ms.mean()}, {"max", ms.max}};
}

// JSON between <script> tags: a "<" in a file's name must not end them.
std::string escaped(const std::string& json) {
  std::string result;
  for (const char character : json) {
    if (character == '<') {
      result += "\\u003c";
    } else {
      result += character;
    }
  }
  return result;
}

}  // namespace

Report::Report(const Look& look, const Shape& shape) : look_(look), shape_(shape), series_(seriesNames()) {}

void Report::add(const FrameStatistics& frame) {
  const FrameReport& report = frame.report;
  const bool registered = report.status == 1 && !report.startsSequence;
  std::vector<double> values = {
      frame.lumaBefore,
      frame.lumaAfter,
      report.noise.known ? frame.noiseSigma : kUnknown,
      registered ? shiftOfMiddle(report.previousFromCurrent, shape_) : kUnknown,
      look_.stabilize ? shiftOfMiddle(report.stabilizedFromCurrent, shape_) : kUnknown,
  };
  for (const int level : kToneLevels) values.push_back(toneOf(report, look_.mode(), level));
  series_.add(frame.seconds, values);
  motionMs_.add(report.registrationMs);
  uploadMs_.add(report.uploadMs);
  gpuMs_.add(report.gpuMs);
  totalMs_.add(frame.totalMs);
  ++frames_;
  if (report.status == 0 && !report.startsSequence) ++lost_;
}

void Report::addNote(const std::string& text) {
  if (notes_.size() < kMaxNotes) notes_.push_back(text);
}

void Report::addPictures(int64_t frame, double seconds, const AVFrame& before, const AVFrame& after) {
  if (std::ssize(pictures_) == kMaxPictures) {
    pictureStep_ *= 2;
    std::erase_if(pictures_, [this](const Pictures& pictures) { return !wantsPictures(pictures.frame); });
    if (!wantsPictures(frame)) return;
  }
  pictures_.push_back({frame, seconds, dataUri(before), dataUri(after)});
}

std::vector<uint8_t> Report::encoded(const AVFrame& planar) const {
  std::vector<uint8_t> jpeg;
  for (const int maxSide : kMaxSides) {
    const FramePtr shown = FilterPass(planar.width, planar.height, shownBy(shape_, maxSide)).run(planar);
    shown->format = AV_PIX_FMT_YUVJ420P;  // the engine's colours are a JPEG's
    for (const int scale : kJpegScales) {
      jpeg = encodeJpeg(*shown, scale);
      if (jpeg.size() <= kMaxPictureBytes) return jpeg;
    }
  }
  return jpeg;
}

std::string Report::dataUri(const AVFrame& planar) const {
  const std::vector<uint8_t> jpeg = encoded(planar);
  std::string text(AV_BASE64_SIZE(jpeg.size()), '\0');
  av_base64_encode(text.data(), static_cast<int>(text.size()), jpeg.data(), static_cast<int>(jpeg.size()));
  text.pop_back();  // its terminator
  return "data:image/jpeg;base64," + text;
}

std::string Report::page(Json about, Json passes, double seconds) const {
  Json data = std::move(about);
  data["run"] = {{"frames", frames_},
                 {"seconds", seconds},
                 {"fps", seconds > 0 ? static_cast<double>(frames_) / seconds : 0.0},
                 {"lost", lost_}};
  data["means"] = Json::object();
  for (const char* name : {"luma_before", "luma_after", "noise", "motion"}) {
    const double mean = series_.all(name).mean();
    data["means"][name] = std::isnan(mean) ? Json(nullptr) : Json(mean);
  }
  data["times"] = {timesRow("motion, noise and exposure", motionMs_), timesRow("upload", uploadMs_),
                   timesRow("drawing and read-back", gpuMs_),
                   timesRow("from sent to ready, several at work", totalMs_)};
  data["passes"] = std::move(passes);
  data["notes"] = notes_;
  data["frames_per_point"] = series_.framesPerBin();
  data["series"] = series_.json();
  data["tone_levels"] = kToneLevels;
  data["pictures"] = Json::array();
  for (const Pictures& one : pictures_) {
    data["pictures"].push_back(
        {{"frame", one.frame}, {"seconds", one.seconds}, {"before", one.before}, {"after", one.after}});
  }
  const std::string json = escaped(data.dump(-1, ' ', false, Json::error_handler_t::replace));
  std::string page = kReportPage;
  constexpr char kPlace[] = "{{data}}";
  return page.replace(page.find(kPlace), sizeof(kPlace) - 1, json);
}

Json settingsOf(const Look& look, const std::vector<std::string>& given) {
  Json rows = Json::array();
  const auto add = [&](const char* option, const char* name, const std::string& value) {
    if (!isRead(look, option)) return;
    rows.push_back(
        {{"name", name}, {"value", value}, {"option", option}, {"given", std::ranges::count(given, option) > 0}});
  };
  const auto of100 = [](int value) { return std::to_string(value) + " of 100"; };
  add("--engine-mode", "Engine mode", kModeNames[look.mode()]);
  add("--denoise", "Denoising", look.denoise);
  add("--quality", "Quality", kQualityNames[look.quality]);
  add("--strength", "Noise reduction", of100(look.strength));
  add("--exposure", "Brightening", look.neutralExposure ? "none" : of100(look.exposure));
  add("--deghosting", "Deghosting", std::to_string(look.deghosting) + " of 10");
  add("--stabilize", "Stabilisation", look.stabilize ? "on" : "off");
  add("--sharpening", "Sharpening", of100(look.sharpening));
  add("--contrast", "Contrast", of100(look.contrast));
  return rows;
}

}  // namespace noxel::tool
