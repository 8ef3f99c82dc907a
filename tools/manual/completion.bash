# Completion of noxel and noxel-register in bash. Commands, options and their choices are those that --help lists, so
# it is in step with whatever version is installed.

# _noxel_options HELP: the options in it, one a line.
_noxel_options() {
  sed -n 's/^  \(-[^ ]*\).*/\1/p' <<<"$1" | tr ',' '\n'
}

# _noxel_argument HELP OPTION: what the option takes: a placeholder such as FILE, {one,of,these}, or nothing for a
# flag. Help has names in its first 30 columns, longer ones on a line of their own.
_noxel_argument() {
  awk -v option="$2" '
    /^  -/ {
      split($1, names, ",")
      for (i in names) if (names[i] == option && NF > 1 && length($1) < 27 && substr($0, length($1) + 4, 1) != " ") {
        if (match($0, /\{[^}]*\}/)) print substr($0, RSTART, RLENGTH)
        else if ($2 != "Excludes:" && $2 != "Needs:") print $2
      }
    }' <<<"$1"
}

_noxel() {
  local command=$1 subcommand='' help argument i
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  # --option=value is three words here.
  if [[ $current == = ]]; then
    current=
  elif [[ $previous == = ]]; then
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  help=$("$command" --help 2>/dev/null) || return
  if [[ $help == *$'\nSubcommands:'* ]]; then
    for ((i = 1; i < COMP_CWORD; ++i)); do
      [[ ${COMP_WORDS[i]} == -* ]] || { subcommand=${COMP_WORDS[i]}; break; }
    done
    if [[ -z $subcommand && $current != -* ]]; then
      mapfile -t COMPREPLY < <(
        compgen -W "$(sed -n '/^Subcommands:/,/^$/s/^  \([^ ]*\).*/\1/p' <<<"$help")" -- "$current")
      return
    fi
    [[ -z $subcommand ]] || help=$("$command" "$subcommand" --help 2>/dev/null) || return
  fi

  argument=
  [[ $previous != -* ]] || argument=$(_noxel_argument "$help" "$previous")
  case $argument in
    '{'*)
      argument=${argument//[\{\}]/}
      mapfile -t COMPREPLY < <(compgen -W "${argument//,/ }" -- "$current")
      return
      ;;
    DIR*)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -d -- "$current")
      return
      ;;
    '' | FILE* | OUTPUT*) ;;
    *) return ;; # a number or a name
  esac
  if [[ $current == -* && -z $argument ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_noxel_options "$help")" -- "$current")
  elif [[ -n $argument || $help == *$'\nPositionals:'* ]]; then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
}
complete -F _noxel noxel noxel-register
