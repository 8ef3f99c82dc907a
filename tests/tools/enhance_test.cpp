#include "enhance/enhance.h"

#include <cmath>
#include <deque>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "browser.h"
#include "clips.h"
#include "common/interrupt.h"
#include "common/percentile.h"
#include "common/quantiles.h"
#include "enhance/pass_times.h"
#include "enhance/progress.h"
#include "enhance/statistics.h"
#include "kernels/bmp.h"
#include "media/nv21_frame.h"
#include "run_command.h"

namespace noxel::tool {
namespace {

constexpr int kLift = 40;

struct FakeRecord {
  EnhancerSettings settings;
  std::vector<int64_t> times;  // microseconds
  int stopAt = -1;             // frame during which the user stops the run
};

// Lifts the luma by kLift, each frame once the next two were sent.
class FakeEnhancer : public Enhancer {
 public:
  FakeEnhancer(const EnhancerSettings& settings, FakeRecord& record) : record_(record) { record.settings = settings; }
  bool send(const uint8_t* nv21, int64_t presentationUs) override {
    if (waiting_.size() == 3) return false;
    record_.times.push_back(presentationUs);
    waiting_.emplace_back(nv21, nv21 + nv21Size(record_.settings.width, record_.settings.height));
    return true;
  }
  void finish() override { finished_ = true; }
  bool receive(uint8_t* nv21) override {
    if (waiting_.empty() || (waiting_.size() < 3 && !finished_)) return false;
    if (++received_ - 1 == record_.stopAt) requestStop(true);
    std::copy(waiting_.front().begin(), waiting_.front().end(), nv21);
    waiting_.pop_front();
    const int count = record_.settings.width * record_.settings.height;
    for (int i = 0; i < count; ++i) nv21[i] = static_cast<uint8_t>(nv21[i] + kLift);
    return true;
  }
  int latency() const override { return 2; }
  void addPasses(PassTimes& times) const override { times.add("lift", 2'000'000); }
  // Of six frames the first starts the sequence and the fourth is lost.
  FrameReport report() const override {
    const int frame = received_ - 1;
    FrameReport report;
    report.status = frame == 0 || frame == 3 ? 0 : 1;
    report.startsSequence = frame == 0;
    report.gamma = 0.75f;
    report.gain = 1.25f;
    report.registrationMs = 1.0 + frame;
    report.uploadMs = 11.0 + frame;
    report.gpuMs = 21.0 + frame;
    report.pointsTracked = 700;
    report.pointsKept = 500;
    report.previousFromCurrent[2] = 2.5f;
    report.stabilizedFromCurrent[3] = -0.25f;
    report.noise.known = frame >= 3;
    std::fill_n(report.noise.variance, NoiseCurve::kEntries, 6.25f);
    return report;
  }
  Overlay overlay() const override {
    Overlay overlay;
    overlay.tracks = {{20.5f, 20.5f, 26.5f, 20.5f}};
    return overlay;
  }

 private:
  FakeRecord& record_;
  std::deque<std::vector<uint8_t>> waiting_;
  bool finished_ = false;
  int received_ = 0;
};

class Enhance : public testing::Test {
 protected:
  Enhance() {
    options_.input = folder_.file("in.mkv");
    options_.output = folder_.file("out.mkv");
    options_.quiet = true;
  }
  ~Enhance() override { requestStop(false); }

  int run() {
    return runEnhance(options_, [this](const EnhancerSettings& settings) {
      return std::make_unique<FakeEnhancer>(settings, record_);
    });
  }

  const TemporaryDirectory folder_;
  EnhanceOptions options_;
  FakeRecord record_;
};

TEST_F(Enhance, EachFrameComesOutEnhancedAtItsTime) {
  ClipSpec spec;
  spec.width = 66;
  spec.height = 50;
  spec.times = {0, 40, 120, 2000, 2040};
  writeClip(options_.input, spec);
  ASSERT_EQ(run(), kExitFine);
  EXPECT_EQ(record_.settings.width, 68) << "padded";
  EXPECT_EQ(record_.times, (std::vector<int64_t>{0, 40'000, 120'000, 2'000'000, 2'040'000}));

  VideoReader reader(options_.output);
  for (size_t i = 0; i < spec.times.size(); ++i) {
    const FramePtr frame = reader.next();
    ASSERT_TRUE(frame);
    ASSERT_EQ(frame->width, 66);
    EXPECT_EQ(av_rescale_q(frame->pts, reader.timeBase(), spec.timeBase), spec.times[i]);
    // Encoded twice: 1.5 levels in the mean.
    EXPECT_NEAR(meanLuma(frame->data[0], frame->linesize[0], 66, 50), lumaOf(static_cast<int>(i)) + kLift, 1.5);
  }
  EXPECT_FALSE(reader.next());
}

TEST_F(Enhance, CompareKeepsTheLeftHalf) {
  ClipSpec spec;
  spec.matrix = AVCOL_SPC_BT709;
  spec.range = AVCOL_RANGE_MPEG;
  writeClip(options_.input, spec);
  options_.output = folder_.file("out.y4m");
  options_.compare = true;
  ASSERT_EQ(run(), kExitFine);
  const FramePtr in = VideoReader(options_.input).next();
  const FramePtr out = VideoReader(options_.output).next();
  for (int y = 0; y < in->height; ++y) {
    const uint8_t *before = &sample(*in, 0, 0, y), *after = &sample(*out, 0, 0, y);
    for (int x = 0; x < 32; ++x) ASSERT_EQ(before[x], after[x]) << x << ',' << y;
    // kLift is in full-range codes, these are limited; the two conversions round within 2.
    for (int x = 32; x < 64; ++x) ASSERT_NEAR(after[x] - before[x], kLift * 219.0 / 255, 2) << x << ',' << y;
  }
}

TEST_F(Enhance, DumpsEachFrameAndOnePictureBeforeAndAfter) {
  writeClip(options_.input, {});
  options_.dumpFolder = folder_.file("dump");
  options_.pictureFile = folder_.file("frame.png");
  ASSERT_EQ(run(), kExitFine);
  EXPECT_TRUE(record_.settings.warmUp && !record_.settings.passes);
  // The picture is the last frame of a clip as short as this.
  const FramePtr picture = VideoReader(options_.pictureFile).next();
  ASSERT_TRUE(picture->width == 128 && picture->height == 48);
  EXPECT_NEAR(sample(*picture, 0, 3 * 32 + 1, 24), lumaOf(5), 4) << "a chroma of 120, 136 lowers green by 3";
  EXPECT_NEAR(sample(*picture, 0, 3 * 96 + 1, 24) - sample(*picture, 0, 3 * 32 + 1, 24), kLift, 2);

  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(options_.dumpFolder), {}), 12);
  const auto green = [&](const char* name) {  // of the centre pixel
    const std::string bytes = contents(options_.dumpFolder + "/frame-000003-" + name + ".bmp");
    const char* reason = "";
    kernels::BmpPicture bmp = {};
    const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
    EXPECT_TRUE(kernels::readBmp(data, bytes.size(), &bmp, &reason)) << reason;
    return bmp.width == 64 && bmp.height == 48 ? bmp.plane.row(24)[32 * 3 + 1] : -1;
  };
  EXPECT_NEAR(green("after") - green("before"), kLift, 1);
  EXPECT_THROW(run(), ToolError) << "the folder is not empty";
}

TEST_F(Enhance, StatisticsHoldEachReportThePassesAndASummary) {
  writeClip(options_.input, {});
  options_.output = folder_.file("out.y4m");
  options_.statsFile = folder_.file("run.json");
  options_.overlay = true;  // drawn into the output, not measured
  options_.warmUp = false;
  options_.passes = true;
  testing::internal::CaptureStderr();
  ASSERT_EQ(run(), kExitFine);
  const std::string table = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(!record_.settings.warmUp && record_.settings.overlay && record_.settings.passes);
  EXPECT_EQ(sample(*VideoReader(options_.output).next(), 0, 26, 20), 255) << "the dot";
  EXPECT_NE(table.find("lift                          6    2.000    2.000    2.000 100.0 %\n"), table.npos) << table;

  auto json = nlohmann::json::parse(contents(options_.statsFile));
  EXPECT_EQ(json["input"]["width"], 64);
  EXPECT_EQ(json["options"]["warm_up"], false);
  EXPECT_EQ(json["passes"][0]["drawn"], 6);
  ASSERT_EQ(json["frames"].size(), 6u);
  EXPECT_EQ(json["frames"][0]["starts_sequence"], true);
  auto& frame = json["frames"][3];
  const double before = frame["mean_luma_before"];
  EXPECT_NEAR(before, lumaOf(3), 1.0) << "full range: the clip's codes are the engine's";
  EXPECT_DOUBLE_EQ(frame["mean_luma_after"].get<double>() - before, kLift);
  EXPECT_EQ(json["frames"][2]["noise_variance"], nullptr) << "not known";
  ASSERT_EQ(frame["noise_variance"].size(), 32u);
  EXPECT_EQ(frame["noise_variance"][31], 6.25);
  EXPECT_EQ(frame["noise_sigma"], 2.5);
  EXPECT_EQ(json["summary"]["noise_sigma_p50"], 2.5);
  for (const char* measured : {"mean_luma_before", "mean_luma_after", "total_ms", "noise_sigma", "noise_variance"}) {
    frame.erase(measured);
  }
  EXPECT_EQ(frame, nlohmann::json::parse(R"({
      "index": 3, "time": 0.12, "status": 0, "starts_sequence": false, "points_tracked": 700, "points_kept": 500,
      "motion": [[1, 0, 2.5], [0, 1, 0], [0, 0, 1]], "stabilization": [[1, 0, 0], [-0.25, 1, 0], [0, 0, 1]],
      "zoom": 1, "gamma": 0.75, "gain": 1.25, "registration_ms": 4, "upload_ms": 14, "gpu_ms": 24})"));
  const auto& summary = json["summary"];
  EXPECT_EQ(summary["frames"], 6);
  EXPECT_DOUBLE_EQ(summary["lost_share"].get<double>(), 1.0 / 5) << "the first frame cannot be lost";
  EXPECT_EQ(summary["registration_ms_p50"], 3);
  EXPECT_EQ(summary["upload_ms_p95"], 16);
  EXPECT_EQ(summary["gpu_ms_p95"], 26);
}

TEST_F(Enhance, TheReportHasFiguresNotesAndPicturesOfTheRun) {
  writeClip(options_.input, {});
  options_.statsFile = folder_.file("run.json");
  options_.reportFile = folder_.file("run.html");
  options_.look.stabilize = true;
  options_.given = {"--stabilize"};
  record_.stopAt = 4;
  ASSERT_EQ(run(), kExitInterrupted);
  requestStop(false);
  const auto stats = nlohmann::json::parse(contents(options_.statsFile));
  const std::string page = contents(options_.reportFile);
  const auto data = dataOf(page);
  EXPECT_EQ(data["input"], stats["input"]);
  EXPECT_EQ(data["run"]["frames"], 5);
  EXPECT_EQ(data["run"]["lost"], 1);
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_NEAR(data["series"]["luma_after"]["mean"][i], stats["frames"][i]["mean_luma_after"], 1e-3);
    EXPECT_EQ(data["series"]["time"][i], stats["frames"][i]["time"]);
  }
  EXPECT_EQ(data["series"]["motion"]["mean"], nlohmann::json::parse("[null, 2.5, 2.5, null, 2.5]"));
  EXPECT_EQ(data["series"]["correction"]["mean"][0], 8) << "a shear of a quarter of 32 pixels";
  EXPECT_EQ(data["pictures"].size(), 5u);
  EXPECT_NE(data["pictures"][0]["before"], data["pictures"][0]["after"]);
  EXPECT_EQ(data["settings"].back()["given"], true);
  EXPECT_EQ(data["passes"][0]["pass"], "lift");
  ASSERT_EQ(data["notes"].size(), 1u);
  EXPECT_EQ(data["notes"][0].get<std::string>().rfind("partial: ", 0), 0u);

  EXPECT_EQ(refusal([&] { run(); }).code(), kExitUsage) << "the files exist";
  options_.overwrite = true;
  options_.reportFile = options_.statsFile;
  EXPECT_EQ(refusal([&] { run(); }).code(), kExitUsage);
  options_.reportFile = "-";
  EXPECT_EQ(refusal([&] { run(); }).code(), kExitUsage);
  EXPECT_EQ(contents(folder_.file("run.html")), page);
}

TEST_F(Enhance, FinishesTheFileWhenStopped) {
  writeClip(options_.input, {});
  record_.stopAt = 2;
  ASSERT_EQ(run(), kExitInterrupted);
  requestStop(false);
  EXPECT_EQ(contentsOf(options_.output).seconds.size(), 3u);
}

TEST_F(Enhance, ASizeChangeLeavesNoOutput) {
  ClipSpec spec;
  spec.video = AV_CODEC_ID_MJPEG;  // files can be concatenated
  writeClip(folder_.file("a.mjpeg"), spec);
  spec.width = 32;
  writeClip(folder_.file("b.mjpeg"), spec);
  options_.input = folder_.file("ab.mjpeg");
  writeFile(options_.input, contents(folder_.file("a.mjpeg")) + contents(folder_.file("b.mjpeg")));
  const ToolError refused = refusal([&] { run(); });
  EXPECT_EQ(refused.code(), kExitFailed);
  EXPECT_NE(std::string(refused.what()).find("64x48 to 32x48"), std::string::npos) << refused.what();
  EXPECT_EQ(folder_.names(), (std::vector<std::string>{"a.mjpeg", "ab.mjpeg", "b.mjpeg"}));
}

TEST(PassTimes, AreOfTheFramesThatDrewAPassInTheOrderDrawn) {
  PassTimes times;
  const auto frame = [&](const std::vector<std::pair<const char*, uint64_t>>& passes) {
    for (const auto& [name, microseconds] : passes) times.add(name, microseconds * 1000);
    times.endFrame();
  };
  frame({{"unpack", 1000}, {"tone", 500}, {"pack", 500}});
  frame({{"unpack", 3000}, {"erode", 500}, {"erode", 250}, {"mix", 1250}, {"tone", 500}, {"pack", 500}});
  frame({{"unpack", 1250}, {"mix", 750}, {"tone", 0}, {"pack", 0}});  // 0: not measured
  EXPECT_EQ(times.json(), nlohmann::ordered_json::parse(R"([
      {"pass": "unpack", "drawn": 3, "ms_mean": 1.75, "ms_p50": 1.25, "ms_max": 3.0, "share": 0.525},
      {"pass": "erode", "drawn": 2, "ms_mean": 0.75, "ms_p50": 0.75, "ms_max": 0.75, "share": 0.075},
      {"pass": "mix", "drawn": 2, "ms_mean": 1.0, "ms_p50": 0.75, "ms_max": 1.25, "share": 0.2},
      {"pass": "tone", "drawn": 3, "ms_mean": 0.5, "ms_p50": 0.5, "ms_max": 0.5, "share": 0.1},
      {"pass": "pack", "drawn": 3, "ms_mean": 0.5, "ms_p50": 0.5, "ms_max": 0.5, "share": 0.1}])"));
}

TEST(Statistics, PercentilesAreNearestRanks) {
  EXPECT_EQ(percentile({}, 50), 0);
  EXPECT_EQ(percentile({4, 1, 3, 2}, 50), 2);
  EXPECT_EQ(percentile({4, 1, 3, 2}, 95), 4);
  EXPECT_EQ(percentile({7}, 0), 7);
}

TEST(Statistics, PercentilesOfALongRunAreWithinHalfAPercent) {
  Quantiles quantiles;
  std::vector<double> samples;
  // 0.02 to 54 ms, in an order that is not theirs.
  for (size_t i = 0; i < 20'000; ++i) samples.push_back(0.02 * std::exp(static_cast<double>(i * 7919 % 20'000) / 2530));
  for (size_t i = 0; i < samples.size(); ++i) {
    quantiles.add(samples[i]);
    if (i + 1 != Quantiles::kExact && i + 1 != samples.size()) continue;
    const std::vector<double> soFar(samples.begin(), samples.begin() + static_cast<ptrdiff_t>(i) + 1);
    for (const int percent : {1, 50, 95, 100}) {
      const double truth = percentile(soFar, percent);
      const double error = i + 1 == Quantiles::kExact ? 0 : 0.00501 * truth;
      EXPECT_NEAR(quantiles.percentile(percent), truth, error) << percent;
    }
  }
  EXPECT_EQ(quantiles.max(), percentile(samples, 100));
}

TEST(Progress, ShowsFrameRateAndTimeLeft) {
  EXPECT_EQ(progressText(120, 1500, 5.0), "frame 120/1500  24.0 fps  0:58 left");
  EXPECT_EQ(progressText(10, 100010, 10.0), "frame 10/100010  1.0 fps  27:46:40 left");
  EXPECT_EQ(progressText(30, 0, 2.0), "frame 30  15.0 fps");
  EXPECT_EQ(progressText(31, 30, 2.0), "frame 31/31  15.5 fps  0:00 left");
}

}  // namespace
}  // namespace noxel::tool
