// `noxel compare`: the command line.
extern "C" {
#include <libavutil/log.h>
}

#include <CLI/CLI.hpp>

#include "commands/commands.h"
#include "common/interrupt.h"
#include "compare/compare.h"

namespace noxel::tool {
namespace {

constexpr char kCompareFooter[] = R"(Examples:
  noxel compare enhanced.mp4 clean.mp4
  noxel compare enhanced.mp4 clean.mp4 --input night.mp4 --from-frame 10
  noxel compare a.mp4 b.mp4 --json - | other-tool

Frames are matched by their number: the first of CLIP with the first of REFERENCE. All clips have one size; what one has
beyond the end of another is left out, with a note. Samples are compared in 8 bits, 4:2:0, full range, BT.601, whatever
the clips are tagged as. Rows and figures:
  luma dB, chroma dB  PSNR, 10 log10(255^2 / mean squared error); chroma of both planes together. 99 for equal pictures.
                      Over the clip it is that of the error of all frames
  SSIM                structural similarity of luma, in a Gaussian window of 11 x 11 with sigma 1.5
  flicker             mean change of the luma error from one frame to the next, in levels
  as it is            without regard to tone
  tone-aligned        with the difference in tone taken out, so that brightening is not punished: one table for the clip
                      that never falls gives each of its luma levels the level that leaves the least squared error, and
                      a gain and an offset do the same for each plane of chroma
  gain                of CLIP over --input, tone-aligned: dB, SSIM, and flicker as a share of the input's
  SSIM lifted         against --original, with a table for that one: how much detail a brightened picture would show

JSON has each frame's figures too, and the table of the tone. Clips are read twice; --no-tone reads them once, and only
then one may be - for standard input. With --json - the table goes to standard error. Needs no GPU and no driver.
)";

void addOptions(CLI::App* command, CompareOptions& options) {
  command->footer(kCompareFooter);
  command->add_option("CLIP", options.clip, "The clip under test; any video FFmpeg reads")->required();
  command->add_option("REFERENCE", options.reference, "What it should look like")->required();
  command->add_option("--input", options.input, "What CLIP was made of: also gains over it")->type_name("FILE");
  command->add_option("--original", options.original, "The reference as it looks well exposed: also SSIM against that")
      ->type_name("FILE");
  command->add_option("--from-frame", options.fromFrame, "The first frame scored, from 0")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  command->add_option("--ssim-every", options.ssimEvery, "SSIM of one in so many frames, as it takes most of the time")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  command->add_flag_callback(
      "--no-tone", [&options] { options.tone = false; }, "Only as it is, not tone-aligned");
  command->add_flag("--per-frame", options.perFrame, "A row for each frame");
  command->add_option("--json", options.jsonFile, "The figures as JSON; - for standard output")->type_name("FILE");
  command->add_flag("-y,--overwrite", options.overwrite, "Overwrite FILE if it exists");
}

}  // namespace

Command addCompare(CLI::App& app) {
  const auto options = std::make_shared<CompareOptions>();
  CLI::App* command = app.add_subcommand("compare", "Score one video against another: PSNR, SSIM, flicker");
  addOptions(command, *options);
  return {command, [options] {
            av_log_set_level(AV_LOG_QUIET);
            installInterruptHandlers();
            return runCompare(*options);
          }};
}

}  // namespace noxel::tool
