// `noxel enhance`: the command line.
#include <CLI/CLI.hpp>

#include "commands/commands.h"
#include "common/tool_error.h"
#include "enhance/batch.h"
#include "enhance/enhance.h"

namespace noxel::tool {
namespace {

constexpr char kEnhanceFooter[] = R"(Examples:
  noxel enhance night.mp4 -o bright.mp4
  noxel enhance night.mp4 -o half.mp4 --compare --picture frame.png --stats run.json --report run.html
  noxel enhance night.mp4 -o steady.mp4 --quality best --stabilize
  noxel enhance night.mp4 -o part.mp4 --start 1:20 --duration 12.5
  noxel enhance DCIM/*.mp4 --output-dir enhanced --resume
  other-tool --to-y4m | noxel enhance - -o - --denoise spatial | player -

Each input frame gives one output frame with the same time stamp, size and colour tags. Rotation, audio, subtitles,
chapters, attachments, data and metadata are copied; what OUTPUT cannot hold is named in a note. An HDR clip (PQ or HLG)
is tone-mapped to BT.709 SDR first. Video is 8 bits, 4:2:0; for h264, hevc and av1 an odd last column or row is repeated.
The file is written under a temporary name beside OUTPUT and renamed when complete. Ctrl-C, SIGTERM and SIGHUP finish it
with the frames done so far, and its comment says that it is partial; a second Ctrl-C quits at once and leaves none. An MP4
on standard input with its index at the end is first spooled to a file in $TMPDIR. A single picture comes out upright, in 8-bit RGB
or RGBA. --dump-frames with -y does not delete the files of an earlier, longer dump.

Before it starts noxel looks at eighteen frames and two runs of eight, spread over the file as far as its keyframes
allow, and says in a line what it found: mean luma (dark below 85), noise, shake, HDR, whether it was denoised already,
interlaced, variable frame rate. From a pipe these are the first eighteen frames, which are enhanced as all others. In
mode 5 the noise chooses the strength, unless --strength is given: 50 from 1.6 levels on, 40 from 1, 25 from 0.3, else 0. A clip that is
neither dark nor has noise of a level, whose mean the tone would raise by less than a tenth, and that is not HDR or
interlaced is left as it came: the file is copied; where that does not do, as for another container, --stats or --crf, it
is encoded with its frames unchanged. An option of the picture, such as --exposure or --stabilize, is always followed.
--no-auto does not look. Interlaced clips are deinterlaced in any case, one frame for each.

Shake is how far the path of the picture's centre is from the straight line through each eight frames, root mean square,
in pixels. "Already denoised" is a dark picture with noise below 1.6 levels, half of what a phone's sensor leaves there.
--stats has it all under "found", and under "chosen" what was chosen, with the reasons that --explain prints.

With --output-dir a clip that fails does not stop the others, and a summary comes at the end; the exit code is that of the
failed clips, or 1 when they failed for different reasons. Ctrl-C ends the clips at work as above and begins no other. The
names given to --picture, --stats, --report and --dump-frames need {name} in them with several INPUTs, which becomes
INPUT's name:
  noxel enhance *.mov --output-dir out --stats out/{name}.json

--stats, per frame:
  status              1 registered (modes 0, 1, 3 and 5: blended with the history), 0 drawn alone, -1 spatial. Mode 5 looks at
                      the frames after the first one beforehand: it is blended with them
  starts_sequence     first frame, or first after a gap: there is no previous frame to register with
  points_tracked      points tracked from the previous frame; points_kept: inliers of the motion. Points are placed on
                      the motion of the whole picture, not tracked singly: they do not show what moves otherwise
  motion              3 x 3, pixels of this frame to pixels of the previous one
  stabilization       3 x 3, pixels of this frame to the stabilised picture, before the crop; zoom: the crop
  gamma, gain         exponent and gain of the brightening of mode 1
  registration_ms     motion and exposure; upload_ms, gpu_ms: on the GPU thread; total_ms: the whole frame
  mean_luma_before    0..255; mean_luma_after
  noise_sigma         noise of the frame as it came, of a pixel on average, in 8-bit levels; null: not known
  noise_variance      the same by luma, in levels squared: 32 entries, for luma 0..7, 8..15, ..., 248..255
Pixel (0.5, 0.5) is the centre of the first. The summary has lost_share, the share of frames with a previous one whose
registration failed, and the 50th and 95th percentiles of the times. Passes are in the order drawn, with their GPU time
per frame.

A quad is four corners: top left, bottom left, top right, bottom right; from -1 (left, bottom) to 1 (right, top). It
shows the part of the picture that it covers; the untouched quad is drawn over the enhanced one:
  noxel enhance night.mp4 -o split.mp4 --untouched-quad 0,1,0,-1,1,1,1,-1

--overlay draws tracks, each a dot with a tail to where that was in the previous frame: green along the common motion, red
when that was rejected, yellow where the picture moves on its own. Purple is where the history is held back; in mode 5 the
fewer frames are behind a place, the more.
)";

constexpr char kModes[] =
    "5: the clear picture; 0: mean of three frames, sharpened; 1: denoise and brighten, as the library does; 2: "
    "stabilise "
    "and sharpen; 3: as 1 without brightening; 4: detail and contrast of single pictures, also PNG to PNG";

CLI::Option* addQuad(CLI::App* command, const char* name, std::vector<float>& corners, const char* description) {
  return command->add_option(name, corners, description)
      ->delimiter(',')
      ->expected(8)
      ->check([](const std::string& text) { return outsideOf(-1, 1, text); })
      ->type_name("X,Y,X,Y,X,Y,X,Y");
}

std::string notATime(const std::string& text) {
  return parsedTime(text) ? "" : text + " is not a time in seconds or as [HH:]MM:SS[.mmm]";
}

void addClips(CLI::App* command, BatchOptions& batch) {
  EnhanceOptions& options = batch.clip;
  const char* part = "Part of the clip";
  command
      ->add_option_function<std::string>(
          "--start", [&options](const std::string& text) { options.range.startUs = *parsedTime(text); },
          "Begin with the first frame at or after this time: seconds, or [HH:]MM:SS[.mmm]. It comes at time 0, and "
          "with it "
          "audio, subtitles and chapters")
      ->check(notATime)
      ->type_name("TIME")
      ->group(part);
  command
      ->add_option_function<std::string>(
          "--duration", [&options](const std::string& text) { options.range.durationUs = *parsedTime(text); },
          "End this long after the start")
      ->check(notATime)
      ->check([](const std::string& text) { return parsedTime(text) == 0 ? "--duration must be more than 0" : ""; })
      ->type_name("TIME")
      ->group(part);

  const char* several = "Several clips";
  command
      ->add_option("--output-dir", batch.outputFolder,
                   "Write each INPUT into this folder, under its own name with a suffix")
      ->type_name("DIR")
      ->group(several);
  command->add_option("--suffix", batch.suffix, "Goes behind the name, before the extension")
      ->capture_default_str()
      ->group(several);
  command
      ->add_option("--container", batch.container,
                   "Of the outputs; without it the input's where it can be written, else mp4")
      ->check(CLI::IsMember({"mp4", "mov", "mkv", "webm", "avi", "gif", "y4m"}))
      ->group(several);
  command
      ->add_option_function<std::string>(
          "--jobs", [&batch](const std::string& text) { batch.jobs = text == "auto" ? 0 : std::stoi(text); },
          "Clips at once, 1 to 64. auto: one for each 4 cores and GB of free memory")
      ->check([](const std::string& text) { return text == "auto" ? "" : CLI::Range(1, 64)(text); })
      ->type_name("N")
      ->default_str("auto")
      ->group(several);
  command
      ->add_flag("--resume", options.resume,
                 "Skip an output that is whole: it can be opened, does not say that it is partial, and has the input's "
                 "number of frames, give or take 1 % or two. Others are written anew")
      ->group(several);
}

void checkPlaces(const CLI::App* command, const BatchOptions& batch) {
  const bool folder = !batch.outputFolder.empty();
  if (folder && command->count("--output") > 0) {
    throw ToolError(kExitUsage, "--output and --output-dir exclude each other");
  }
  if (!folder && command->count("--output") == 0) {
    throw ToolError(kExitUsage, batch.inputs.size() > 1 ? "several inputs need --output-dir"
                                                        : "--output is required, or --output-dir");
  }
  if (!folder && batch.inputs.size() > 1) {
    throw ToolError(kExitUsage, "--output is for one input; several inputs need --output-dir");
  }
  for (const char* option : {"--suffix", "--container", "--jobs"}) {
    if (!folder && command->count(option) > 0) throw ToolError(kExitUsage, std::string(option) + " needs --output-dir");
  }
  if (batch.suffix.find('/') != std::string::npos)
    throw ToolError(kExitUsage, "--suffix is a part of a name, without /");
}

void addOptions(CLI::App* command, BatchOptions& batch) {
  EnhanceOptions& options = batch.clip;
  command->footer(kEnhanceFooter);
  command->add_option("INPUT", batch.inputs, "Any video FFmpeg reads, or - for standard input")->required();
  command
      ->add_option(
          "-o,--output", options.output,
          ".mp4, .mov, .mkv, .webm, .avi, .gif, .y4m, or - for Y4M on standard output; %04d.png for a picture a "
          "frame, .png for a single picture")
      ->type_name("OUTPUT");
  command->add_flag("-y,--overwrite", options.overwrite, "Overwrite files that exist");
  addClips(command, batch);

  const char* look = "Picture";
  addDenoising(
      command, look, [&options](bool spatial) { options.look.denoise = spatial ? "spatial" : "temporal"; },
      options.look.quality, options.look.strength, options.look.exposure);
  command
      ->add_option(
          "--deghosting", options.look.deghosting,
          "Keep moving objects from leaving trails; 9 and 10 also keep strong noise. Modes 1 and 3, temporal only")
      ->check(CLI::Range(0, 10))
      ->capture_default_str()
      ->group(look);
  command
      ->add_flag("--neutral-exposure", options.look.neutralExposure,
                 "Denoise only, leave the tone alone; in mode 1 the same as mode 3")
      ->group(look);
  command->add_flag("--stabilize", options.look.stabilize, "Stabilise the picture and crop it to 1/1.17; temporal only")
      ->group(look);
  command->add_option("--zoom", options.look.zoom, "Magnify the centre of the picture; temporal only (mode 0: both)")
      ->check([](const std::string& text) { return outsideOf(1, 32, text); })
      ->capture_default_str()
      ->group(look);
  command
      ->add_flag_callback(
          "--no-warm-up", [&options] { options.warmUp = false; },
          "Mode 5: do not look at the frames after the first one beforehand, so that it is as noisy as it came. "
          "Mode 1: start at neutral exposure and ease in")
      ->group(look);

  CLI::Option* automatic = command
                               ->add_flag_callback(
                                   "--auto", [&options] { options.automatic = true; },
                                   "Look at the clip first; mode 5: its noise chooses the strength, and a clip that is "
                                   "neither dark nor noisy "
                                   "is left as it came. On by default; options given win")
                               ->group(look);
  command
      ->add_flag_callback(
          "--no-auto", [&options] { options.automatic = false; }, "Do not look; take the usual strength")
      ->excludes(automatic)
      ->group(look);
  command->add_flag("--explain", options.explain, "Say on standard error what was chosen, and why")->group(look);

  const char* mode = "Engine modes";
  command->add_option("--engine-mode", options.look.engineMode, kModes)
      ->check(CLI::Range(0, 5))
      ->capture_default_str()
      ->group(mode);
  command->add_option("--sharpening", options.look.sharpening, "Modes 0, 2 and 4: sharpening")
      ->check(CLI::Range(0, 100))
      ->capture_default_str()
      ->group(mode);
  command->add_option("--contrast", options.look.contrast, "Modes 0, 2 and 4: contrast, 0 for none")
      ->check(CLI::Range(0, 100))
      ->capture_default_str()
      ->group(mode);
  command->add_flag("--flip-chroma", options.look.flipChroma, "Modes 0 and 2: swap U and V, and so blue and red")
      ->group(mode);
  addQuad(command, "--enhanced-quad", options.look.enhancedQuad, "Modes 0 to 3: where the enhanced picture is drawn")
      ->group(mode);
  addQuad(command, "--untouched-quad", options.look.untouchedQuad, "Modes 0 to 3: where the untouched picture is drawn")
      ->group(mode);

  const char* written = "Output";
  command->add_flag("--compare", options.compare, "Left half original, right half enhanced")->group(written);
  command
      ->add_flag("--overlay", options.overlay,
                 "Draw what moved how, and where the history is held back. Modes 1, 3 and 5, temporal only")
      ->group(written);
  std::vector<std::string> codecs(std::begin(kCodecNames), std::end(kCodecNames));
  codecs.emplace_back(kCopyLikeInput);
  command->add_option("--codec", options.encoding.codec, "Of the video")
      ->check(CLI::IsMember(codecs))
      ->default_str("h264; .webm: vp9")
      ->group(written);
  command->add_option("--preset", options.encoding.preset, "How much time the encoder takes to make the file smaller")
      ->check(CLI::IsMember(std::vector<std::string>(std::begin(kPresets), std::end(kPresets))))
      ->default_str("medium")
      ->group(written);
  command
      ->add_option("--crf", options.encoding.crf,
                   "Quality; lower is better and larger. h264 0..51, default 18; hevc 0..51, 20; av1 and vp9 0..63, 24")
      ->group(written);
  command
      ->add_option("--hwaccel", options.encoding.hardware,
                   "Encode on this hardware where it can, else in software, with a note")
      ->check(CLI::IsMember(std::vector<std::string>(std::begin(kHardware), std::end(kHardware))))
      ->group(written);
  command->add_option("--picture", options.pictureFile, "One frame before and after, as a PNG")
      ->type_name("FILE.png")
      ->group(written);
  command
      ->add_option("--picture-frame", options.pictureFrame, "Which frame, from 0; the last one if the clip is shorter")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str()
      ->group(written);
  command->add_option("--stats", options.statsFile, "Measurements of the run and of each frame, as JSON")
      ->type_name("FILE.json")
      ->group(written);
  command
      ->add_option("--report", options.reportFile,
                   "A page for a browser: frames before and after, luma, noise, motion and tone over time, settings, "
                   "times")
      ->type_name("FILE.html")
      ->group(written);
  command->add_flag("--passes", options.passes, "A table of the engine's passes and their times, on standard error")
      ->group(written);

  command
      ->add_option("--dump-frames", options.dumpFolder,
                   "Each frame before and after, and in modes 1, 3 and 5 where the history is held back, as BMP files "
                   "in this folder")
      ->type_name("DIR")
      ->group(written);

  command->add_flag("-q,--quiet", options.quiet, "No progress and no notes, only errors");
  command->add_flag("-v,--verbose", options.verbose, "Show the engine's log and FFmpeg's warnings");
}

}  // namespace

Command addEnhance(CLI::App& app) {
  const auto batch = std::make_shared<BatchOptions>();
  batch->clip.automatic = true;
  CLI::App* command = app.add_subcommand("enhance", "Denoise and brighten a video");
  addOptions(command, *batch);
  return {command, [command, batch] {
            EnhanceOptions& options = batch->clip;
            for (const CLI::Option* option : command->get_options()) {
              if (option->count() > 0) options.given.push_back(option->get_name());
            }
            takeDefaultStrength(command, options.look.mode(), options.look.strength);
            checkPlaces(command, *batch);
            options.input = batch->inputs.front();
            const bool several = !batch->outputFolder.empty();
            return runWithEngine(options.verbose, [&] { return several ? runBatch(*batch) : runEnhance(options); });
          }};
}

}  // namespace noxel::tool
