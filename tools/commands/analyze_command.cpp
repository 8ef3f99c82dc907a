// `noxel analyze`: the command line.
extern "C" {
#include <libavutil/log.h>
}

#include <CLI/CLI.hpp>

#include "analyze/analyze.h"
#include "commands/commands.h"
#include "common/interrupt.h"

namespace noxel::tool {
namespace {

constexpr char kAnalyzeFooter[] = R"(Examples:
  noxel analyze night.mp4
  noxel analyze night.mp4 --plot night.png --json - | other-tool
  other-tool --to-y4m | noxel analyze - --plot night.png

Columns, for each second and for the whole clip; luma is full range (0..255):
  mean                mean luma
  1 %, 50 %, 99 %     percentiles of the luma
  black, white        share of the pixels at 0 and at 255
  gamma, gain         mean exponent and gain of the brightening that `noxel enhance --engine-mode 1 --exposure N`
                      applies: a level v becomes 255 * (gain * v / 255) ^ gamma, clipped at 255
  noise               standard deviation of the noise, of a pixel on average, in levels: what differs between a frame and
                      the one before it, along the camera's motion, where nothing else moves. Noise that stays where it
                      is, as a sensor's fixed pattern under a still camera, does not show

"found" says what kind of clip it is, of all frames, as `noxel enhance --help` explains it for its short look.

The plot shows the clip's histogram, a suggested curve that spreads the levels in use, and the curve of gamma and gain; below, the noise by luma. JSON has its variance, 32 entries of 8 levels.
With --json - the table goes to standard error. Ctrl-C stops reading; the frames read so far are analysed.
)";

void addOptions(CLI::App* command, AnalyzeOptions& options) {
  command->footer(kAnalyzeFooter);
  command->add_option("INPUT", options.input, "Any video FFmpeg reads, or - for standard input")->required();
  command
      ->add_option("--plot", options.plotFile,
                   "The plot; default: INPUT's name with -analysis.png, in the current folder")
      ->type_name("FILE.png");
  command->add_option("--json", options.jsonFile, "The figures as JSON; - for standard output")->type_name("FILE");
  command->add_option("--strength", options.strength, "Strength of the suggested curve, 0 (none) to 1")
      ->check([](const std::string& text) { return outsideOf(0, 1, text); })
      ->capture_default_str();
  command->add_option("--exposure", options.exposure, "As for noxel enhance --engine-mode 1")
      ->check(CLI::Range(0, 100))
      ->capture_default_str();
  command->add_flag("-y,--overwrite", options.overwrite, "Overwrite files that exist");
}

}  // namespace

Command addAnalyze(CLI::App& app) {
  const auto options = std::make_shared<AnalyzeOptions>();
  CLI::App* command = app.add_subcommand("analyze", "Measure how a video is exposed: a table and a plot");
  addOptions(command, *options);
  return {command, [options] {
            av_log_set_level(AV_LOG_QUIET);
            installInterruptHandlers();
            return runAnalyze(*options);
          }};
}

}  // namespace noxel::tool
