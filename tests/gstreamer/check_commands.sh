#!/usr/bin/env bash
# check_commands.sh PLUGIN_DIRECTORY SCRATCH DOCS: noxelenhance in GStreamer's own commands, and those of
# DOCS/integrating.md; a leaked object is a failure. Exits with 77 without a GL driver, unless NOXEL_REQUIRE_GL is 1.
set -euo pipefail
export GST_PLUGIN_PATH=$1 GST_REGISTRY=$2/commands-registry.bin XDG_CACHE_HOME=$2
mkdir -p "$2"

description=$(gst-inspect-1.0 noxelenhance)
for line in 'Filter/Effect/Video' 'NV12, (string)NV21, (string)I420, (string)YV12' 'Range: 0 - 100 Default: 50' \
  'best             - best'; do
  grep -qF -- "$line" <<<"$description" || { echo "gst-inspect-1.0 does not show: $line" >&2; exit 1; }
done

# Runs a command line without leaks.
run() {
  local output
  if ! output=$(GST_TRACERS=leaks GST_DEBUG=GST_TRACER:7 GST_DEBUG_NO_COLOR=1 timeout 50 bash -c "$1" 2>&1); then
    printf '%s\n' "$1" "$output" >&2
    grep -q 'no usable OpenGL' <<<"$output" && [ "${NOXEL_REQUIRE_GL:-}" != 1 ] && exit 77
    exit 1
  fi
  grep -q 'format string: object-alive' <<<"$output" || { echo "The leaks tracer did not run." >&2; exit 1; }
  if grep -E 'object-alive, type-name=\(string\)[^%]' <<<"$output" >&2; then exit 1; fi
}

run 'gst-launch-1.0 videotestsrc num-buffers=20 ! noxelenhance ! fakesink'

# The page's two commands, on a clip of a second. A live source stands for the camera, a sink without a screen for the
# window.
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
page=$(sed -e ':a' -e '/\\$/{N;s/\\\n//;ba' -e '}' "$3/integrating.md")
file=$(grep '^gst-launch-1.0 filesrc' <<<"$page")
camera=$(grep '^gst-launch-1.0 v4l2src' <<<"$page")
cd "$folder"
gst-launch-1.0 -q webmmux name=mux ! filesink location=night.webm \
  videotestsrc num-buffers=25 ! video/x-raw,width=64,height=48,framerate=25/1 ! vp8enc deadline=1 ! queue ! mux. \
  audiotestsrc num-buffers=43 ! vorbisenc ! queue ! mux.
run "$file"
streams=$(gst-launch-1.0 -v filesrc location=bright.webm ! matroskademux name=in \
  in. ! queue ! fakesink in. ! queue ! fakesink)
for codec in video/x-vp8 audio/x-vorbis; do
  grep -q "caps = $codec" <<<"$streams" || { echo "bright.webm has no $codec" >&2; exit 1; }
done
live='videotestsrc is-live=true num-buffers=20 ! video/x-raw,width=64,height=48'
camera=${camera/v4l2src/$live}
run "${camera/autovideosink/fakesink}"
