// `noxel view`: the command line.
#include <CLI/CLI.hpp>

#include "commands/commands.h"
#include "common/tool_error.h"
#include "view/view.h"

namespace noxel::tool {
namespace {

constexpr char kViewFooter[] = R"(Keys:
  space        pause; at the end: play again
  s            split: left half enhanced, right half original
  d            denoise: temporal or spatial
  f            quality: fast, balanced, best (mode 5)
  up, down     noise reduction in steps of 5
  e            exposure: 0, 25, 50, 75, 100
  b            stabilisation (temporal only)
  q, Escape    quit

Examples:
  noxel view night.mp4
  noxel view /dev/video0 --split
  noxel view --format x11grab :0

Opens an X11 window at the clip's size, or smaller to fit the desktop; the picture follows the window's size. A clip
plays at its own speed; a slow machine skips frames, and the title shows the frames drawn per second. The last frame
stays at the end. No sound.
)";

void addOptions(CLI::App* command, ViewOptions& options) {
  command->footer(kViewFooter);
  command->add_option("INPUT", options.input, "Any video FFmpeg reads, a camera (/dev/video0), or - for Y4M")
      ->required();
  command->add_option("--format", options.format, "FFmpeg's name of the input format, such as v4l2, x11grab or lavfi")
      ->type_name("NAME");
  CLI::Option* loop = command->add_flag("--loop", options.loop, "Start again at the end");
  command->add_flag("--exit", options.exitAtEnd, "Quit after the last frame")->excludes(loop);

  const char* look = "Initial settings";
  addDenoising(
      command, look, [&options](bool spatial) { options.look.spatial = spatial; }, options.look.quality,
      options.look.strength, options.look.exposure);
  command
      ->add_option("--engine-mode", options.look.engineMode,
                   "5: the clear picture; the others as for noxel enhance, 1 as the library does")
      ->check(CLI::IsMember({0, 1, 2, 3, 5}))
      ->capture_default_str()
      ->group(look);
  command->add_flag("--stabilize", options.look.stabilize, "Stabilise the picture; temporal only")->group(look);
  command->add_flag("--split", options.look.split, "Left half enhanced, right half original")->group(look);

  command->add_flag("-v,--verbose", options.verbose, "Show the engine's log and FFmpeg's warnings");
}

}  // namespace

Command addView(CLI::App& app) {
  const auto options = std::make_shared<ViewOptions>();
  CLI::App* command = app.add_subcommand("view", "Play a video or a camera, enhanced, in a window");
  addOptions(command, *options);
  return {command, [command, options] {
            takeDefaultStrength(command, options->look.engineMode, options->look.strength);
            if (command->count("--quality") > 0 && options->look.engineMode != NOXEL_MODE_CLEAR) {
              throw ToolError(kExitUsage, "--quality is for --engine-mode 5");
            }
            return runWithEngine(options->verbose, [&] { return runView(*options); });
          }};
}

}  // namespace noxel::tool
