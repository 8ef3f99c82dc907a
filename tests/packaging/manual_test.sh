#!/usr/bin/env bash
# manual_test.sh SOURCE PAGES COMMAND ...: every option that --help lists, of the commands and their subcommands, is
# in the manual pages and is completed by bash, and what options take is completed as what it is.
set -euo pipefail
source=$1 pages=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
touch clip.mp4
mkdir clips

faults=0
fault() {
  echo "$*" >&2
  faults=1
}

# shellcheck source=/dev/null
source "$source/tools/manual/completion.bash"
completed() { # WORD ...: completions of the last word, on one line
  COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
  _noxel "$1" "${*: -1}" "${*: -2:1}"
  printf '%s\n' "${COMPREPLY[@]}" | sort | paste -sd ' '
}
expect() { # WHAT WORD ...
  local what=$1
  shift
  local got
  got=$(completed "$@")
  [ "$got" = "$what" ] || fault "'${*}' is completed by '$got' instead of '$what'"
}

check() { # PAGE COMMAND [SUBCOMMAND]
  local page=$1 count=0 option text all
  shift
  all=$(completed "$@" -)
  text=$(sed 's/\\-/-/g; s/\\f[BIR]//g' "$pages/$page.1") || return
  for option in $("$@" --help | grep -oE '^  -[^ ]+' | tr ',' ' '); do
    count=$((count + 1))
    grep -A1 '^\.TP' <<<"$text" | grep -qE -- "(^|, )$option( |,|\$)" || fault "$page(1) has no $option"
    case " $all " in
      *" $option "*) ;;
      *) fault "$* $option is not completed" ;;
    esac
  done
  [ $count -gt 0 ] || fault "no options found: $*"
}

for command in "$@"; do
  name=$(basename "$command")
  check "$name" "$command"
  subcommands=$("$command" --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z-]*\) .*/\1/p')
  for subcommand in $subcommands; do
    check "$name-$subcommand" "$command" "$subcommand"
    grep -q "^\\\\fB$subcommand\\\\fR\$" "$pages/$name.1" || fault "$name(1) has no $subcommand"
    case " $(completed "$command" "") " in
      *" $subcommand "*) ;;
      *) fault "$subcommand is not completed" ;;
    esac
  done
done

noxel=$1 register=$2
"$noxel" --help | grep -q enhance || fault "$noxel is another command"
expect enhance "$noxel" enh
expect 'balanced best fast' "$noxel" enhance clip.mp4 --quality ''
expect best "$noxel" enhance --quality = be
expect spatial "$noxel" view --denoise s
expect 'clip.mp4 clips' "$noxel" enhance cl
expect 'clip.mp4 clips' "$noxel" enhance -o cl
expect 'clip.mp4 clips' "$noxel" enhance --compare cl # a flag takes nothing: the input follows
expect clips "$noxel" enhance --dump-frames cl
expect '' "$noxel" enhance --strength ''
expect '' "$noxel" info cl
expect --verbose "$noxel" info --verb
expect 'clip.mp4 clips' "$register" --field cl
exit $faults
