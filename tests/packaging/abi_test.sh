#!/usr/bin/env bash
# abi_test.sh LIBRARY DUMP [--renew]: fails where a program built with the libnoxel that DUMP describes would not
# run with LIBRARY: a function is gone, or a public structure has changed. New functions are no change.
#
# Where a change is meant, under a new soname or at the end of a structure that begins with its size, --renew writes the dump.
set -euo pipefail
library=$1 dump=$2
if [ "${3:-}" = --renew ]; then
  abidw --exported-interfaces-only --no-corpus-path \
    --no-comp-dir-path --no-show-locs "$library" >"$dump"
  exit
fi
# A library without debug information has no structures to compare.
readelf -SW "$library" | grep -q '\.debug_info' || { echo "$library has no debug information" >&2; exit 1; }
abidiff --no-added-syms --exported-interfaces-only "$dump" "$library"
