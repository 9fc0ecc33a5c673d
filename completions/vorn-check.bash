# bash completion for vorn-check(1), made by completions/make-companions

_vorn_check() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  COMPREPLY=()
  # What stands behind -- is completed like the arguments of vorn, with whose completion this comes.
  declare -F _vorn_behind_dashes >/dev/null || { declare -F _completion_loader >/dev/null && _completion_loader vorn; }
  declare -F _vorn_behind_dashes >/dev/null && _vorn_behind_dashes && return
  case $previous in
    --loss) :; return ;;
    --rtt-p95) :; return ;;
    --rtt-p99) :; return ;;
    --rtt-max) :; return ;;
    --jitter) :; return ;;
    --rate-p99) :; return ;;
    --bad) :; return ;;
    --timeout) :; return ;;
    --program) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    --label) :; return ;;
    --prometheus) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
  esac
  case $current in
    -*) mapfile -t COMPREPLY < <(compgen -W '--help --loss --rtt-p95 --rtt-p99 --rtt-max --jitter --rate-p99 --bad --timeout --program --label --prometheus --json --version --' -- "$current") ;;
    *) COMPREPLY=() ;;
  esac
}

complete -F _vorn_check vorn-check
