# bash completion for vorn-record(1), made by completions/make-companions

_vorn_record() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  COMPREPLY=()
  # What stands behind -- is completed like the arguments of vorn, with whose completion this comes.
  declare -F _vorn_behind_dashes >/dev/null || { declare -F _completion_loader >/dev/null && _completion_loader vorn; }
  declare -F _vorn_behind_dashes >/dev/null && _vorn_behind_dashes && return
  case $previous in
    -o) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    --format) mapfile -t COMPREPLY < <(compgen -W 'json influx' -- "$current"); return ;;
    --every) :; return ;;
    --count) :; return ;;
    --label) :; return ;;
    --prune) :; return ;;
  esac
  case $current in
    -*) mapfile -t COMPREPLY < <(compgen -W '--help -o --format --every --count --label --packets --prune --version --' -- "$current") ;;
    *) COMPREPLY=() ;;
  esac
}

complete -F _vorn_record vorn-record
