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

Of each second of the clip, and of all of it, with luma in full range (0..255):
  mean                the mean luma
  1 %, 50 %, 99 %     the level that this share of the pixels does not exceed
  black, white        the share of the pixels at 0 and at 255
  gamma, gain         exponent and factor of the brightening that `noxel enhance --exposure N` applies, means over the
                      frames; a level v becomes 255 * (gain * v / 255) ^ gamma, at most 255

The plot shows the clip's histogram, the curve that would spread the levels it uses, and the one of gamma and gain. With
--json - the table goes to standard error. Ctrl-C ends the reading; what was read until then is analysed.
)";

void addOptions(CLI::App* command, AnalyzeOptions& options) {
  command->footer(kAnalyzeFooter);
  command->add_option("INPUT", options.input, "Any video FFmpeg reads, or - for Y4M on standard input")->required();
  command
      ->add_option("--plot", options.plotFile,
                   "Where the plot goes; INPUT's name with -analysis.png, in the current folder, if not said")
      ->type_name("FILE.png");
  command->add_option("--json", options.jsonFile, "The figures as JSON; - for standard output")->type_name("FILE");
  command->add_option("--strength", options.strength, "Of the suggested curve; 0 leaves everything as it is")
      ->check([](const std::string& text) { return outsideOf(0, 1, text); })
      ->capture_default_str();
  command->add_option("--exposure", options.exposure, "As for noxel enhance")
      ->check(CLI::Range(0, 100))
      ->capture_default_str();
  command->add_flag("-y,--overwrite", options.overwrite, "Overwrite files that exist");
}

}  // namespace

Command addAnalyze(CLI::App& app) {
  const auto options = std::make_shared<AnalyzeOptions>();
  CLI::App* command = app.add_subcommand("analyze", "Tell how a video is exposed, in figures and a plot");
  addOptions(command, *options);
  return {command, [options] {
            av_log_set_level(AV_LOG_QUIET);
            installInterruptHandlers();
            return runAnalyze(*options);
          }};
}

}  // namespace noxel::tool
