#!/usr/bin/env bash
# check_commands.sh PLUGIN_DIRECTORY SCRATCH: noxelenhance in GStreamer's own commands; a leaked object is a failure. Exits with
# 77 where there is no GL driver, unless NOXEL_REQUIRE_GL is 1.
set -euo pipefail
export GST_PLUGIN_PATH=$1 GST_REGISTRY=$2/registry.bin XDG_CACHE_HOME=$2
mkdir -p "$2"

description=$(gst-inspect-1.0 noxelenhance)
for line in 'Filter/Effect/Video' 'NV12, (string)NV21, (string)I420, (string)YV12' 'Range: 0 - 100 Default: 50' \
  'best             - best'; do
  grep -qF -- "$line" <<<"$description" || { echo "gst-inspect-1.0 does not show: $line" >&2; exit 1; }
done

export GST_TRACERS=leaks GST_DEBUG=GST_TRACER:7 GST_DEBUG_NO_COLOR=1
for source in 'num-buffers=20' 'num-buffers=20 is-live=true ! video/x-raw,width=64,height=48'; do
  # shellcheck disable=SC2086  # a pipeline's words
  if ! output=$(gst-launch-1.0 videotestsrc $source ! noxelenhance ! fakesink 2>&1); then
    echo "$output" >&2
    grep -q 'no usable OpenGL' <<<"$output" && [ "${NOXEL_REQUIRE_GL:-}" != 1 ] && exit 77
    exit 1
  fi
  grep -q 'format string: object-alive' <<<"$output" || { echo "The leaks tracer did not run." >&2; exit 1; }
  if grep -E 'object-alive, type-name=\(string\)[^%]' <<<"$output" >&2; then exit 1; fi
done
