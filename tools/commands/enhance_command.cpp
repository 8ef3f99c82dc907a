// `noxel enhance`: the command line.
#include <CLI/CLI.hpp>

#include "commands/commands.h"
#include "enhance/enhance.h"

namespace noxel::tool {
namespace {

constexpr char kEnhanceFooter[] = R"(Examples:
  noxel enhance night.mp4 -o bright.mp4
  noxel enhance night.mp4 -o half.mp4 --compare --picture frame.png --stats run.json
  other-tool --to-y4m | noxel enhance - -o - --denoise spatial | player -

The output has one frame for each of the input with the same time stamps, size and colour tags; audio and rotation are
kept (.y4m holds neither). It is written as 8-bit H.264 under a temporary name beside OUTPUT and renamed when it is whole.
Ctrl-C finishes the file with the frames done so far; pressed again it ends at once. A .png is written upright, with 8 bits
a channel, as RGB or RGBA. --dump-frames with -y leaves the files of an earlier, longer dump as they are.

--stats, of each frame:
  status              1 motion known (modes 0, 1 and 3: blended with the past), 0 drawn by itself, -1 spatial
  starts_sequence     the first frame, or one after a hole: there is nothing to measure its motion against
  points_tracked      points followed from the frame before; points_kept: those the motion was fitted to
  motion              3 x 3, this frame's pixels to the previous one's
  stabilization       3 x 3, this frame's pixels to the steadied picture's, before the crop; zoom: the crop
  gamma, gain         exponent and factor of the brightening
  registration_ms     motion and exposure; upload_ms, gpu_ms: the GPU's side; total_ms: the whole frame
  mean_luma_before    of 0..255; mean_luma_after
In pixels, the first one's centre is at (0.5, 0.5). The summary has lost_share, the share of status 0 among the frames
with something to measure against, and the 50th and 95th percentiles of the times.

A quad is four corners: top left, bottom left, top right, bottom right; from -1 (left, bottom) to 1 (right, top). It shows
the part of the picture that it covers, the untouched one over the enhanced one:
  noxel enhance night.mp4 -o split.mp4 --untouched-quad 0,1,0,-1,1,1,1,-1

--overlay draws a dot where each followed point is and a tail to where it came from: green, or red in a frame whose
motion was rejected. Purple lies where the picture moved by itself and the past is not blended in.
)";

constexpr char kModes[] =
    "0 averages three frames, sharpened; 1 enhances; 2 stabilises and sharpens; 3 is 1 at the brightness filmed; "
    "4 lifts detail and contrast of each picture by itself, also from PNG to PNG";

CLI::Option* addQuad(CLI::App* command, const char* name, std::vector<float>& corners, const char* description) {
  return command->add_option(name, corners, description)
      ->delimiter(',')
      ->expected(8)
      ->check([](const std::string& text) { return outsideOf(-1, 1, text); })
      ->type_name("X,Y,X,Y,X,Y,X,Y");
}

void addOptions(CLI::App* command, EnhanceOptions& options) {
  command->footer(kEnhanceFooter);
  command->add_option("INPUT", options.input, "Any video FFmpeg reads, or - for Y4M on standard input")->required();
  command
      ->add_option("-o,--output", options.output,
                   ".mp4, .mkv or .y4m, or - for Y4M on standard output; .png for a single picture")
      ->required()
      ->type_name("OUTPUT");
  command->add_flag("-y,--overwrite", options.overwrite, "Overwrite files that exist");

  const char* look = "Look";
  addDenoising(
      command, look, [&options](bool spatial) { options.look.denoise = spatial ? "spatial" : "temporal"; },
      options.look.strength, options.look.exposure);
  command
      ->add_flag("--neutral-exposure", options.look.neutralExposure,
                 "Denoise only: the brightness stays as it was filmed")
      ->group(look);
  command
      ->add_flag("--stabilize", options.look.stabilize,
                 "Smooth the camera's path and crop the edges (1/1.17 of the picture stays); temporal only")
      ->group(look);
  command->add_option("--zoom", options.look.zoom, "Magnify the middle of the picture; temporal only (mode 0: both)")
      ->check([](const std::string& text) { return outsideOf(1, 32, text); })
      ->capture_default_str()
      ->group(look);
  command
      ->add_flag_callback(
          "--no-warm-up", [&options] { options.warmUp = false; },
          "Let the exposure ease in from neutral instead of settling on the first frame beforehand")
      ->group(look);

  command
      ->add_option("--deghosting", options.look.deghosting,
                   "How readily moving objects are kept out of the blend with the past; modes 1 and 3, temporal only")
      ->check(CLI::Range(0, 10))
      ->capture_default_str()
      ->group(look);

  const char* mode = "Engine modes";
  command->add_option("--engine-mode", options.look.engineMode, kModes)
      ->check(CLI::Range(0, 4))
      ->capture_default_str()
      ->group(mode);
  command->add_option("--sharpening", options.look.sharpening, "Modes 0, 2 and 4: how much detail is lifted")
      ->check(CLI::Range(0, 100))
      ->capture_default_str()
      ->group(mode);
  command
      ->add_option("--contrast", options.look.contrast, "Modes 0, 2 and 4: steepness of the contrast curve, 0 for none")
      ->check(CLI::Range(0, 100))
      ->capture_default_str()
      ->group(mode);
  command
      ->add_flag("--flip-chroma", options.look.flipChroma,
                 "Modes 0 and 2: hand back U before V, which trades blue and red")
      ->group(mode);
  addQuad(command, "--enhanced-quad", options.look.enhancedQuad, "Modes 0 to 3: where the enhanced picture is drawn")
      ->group(mode);
  addQuad(command, "--untouched-quad", options.look.untouchedQuad,
          "Modes 0 to 3: where the picture is drawn as it came")
      ->group(mode);

  const char* written = "What is written";
  command->add_flag("--compare", options.compare, "Left half as it came, right half enhanced")->group(written);
  command
      ->add_flag("--overlay", options.overlay,
                 "Draw the points that were followed, and where the blend is held back; temporal only")
      ->group(written);
  command->add_option("--crf", options.crf, "H.264 quality; less is better and larger")
      ->check(CLI::Range(0, 51))
      ->capture_default_str()
      ->group(written);
  command->add_option("--picture", options.pictureFile, "One frame before and after, as a PNG")
      ->type_name("FILE.png")
      ->group(written);
  command
      ->add_option("--picture-frame", options.pictureFrame,
                   "Which frame, counted from 0; the last one if the clip is shorter")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str()
      ->group(written);
  command->add_option("--stats", options.statsFile, "Measurements of the run and of each frame, as JSON")
      ->type_name("FILE.json")
      ->group(written);

  command
      ->add_option("--dump-frames", options.dumpFolder,
                   "Each frame before and after, and the ghost mask of modes 1 and 3, as BMP files in this folder")
      ->type_name("DIR")
      ->group(written);

  command->add_flag("-q,--quiet", options.quiet, "No progress and no notes, only errors");
  command->add_flag("-v,--verbose", options.verbose, "Show the engine's log and FFmpeg's warnings");
}

}  // namespace

Command addEnhance(CLI::App& app) {
  const auto options = std::make_shared<EnhanceOptions>();
  CLI::App* command = app.add_subcommand("enhance", "Brighten and denoise a video");
  addOptions(command, *options);
  return {command, [command, options] {
            for (const CLI::Option* option : command->get_options()) {
              if (option->count() > 0) options->given.push_back(option->get_name());
            }
            return runWithEngine(options->verbose, [&] { return runEnhance(*options); });
          }};
}

}  // namespace noxel::tool
