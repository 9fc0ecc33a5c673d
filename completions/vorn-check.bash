# bash completion for vorn-check(1). What stands behind -- is completed like the arguments of vorn.

_vorn_check() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  COMPREPLY=()
  # It comes with the completion of vorn.
  declare -F _vorn_behind_dashes >/dev/null || { declare -F _completion_loader >/dev/null && _completion_loader vorn; }
  declare -F _vorn_behind_dashes >/dev/null && _vorn_behind_dashes && return
  case $previous in
    --program | --prometheus)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      ;;
    --loss | --rtt-p95 | --rate-p99 | --bad | --timeout | --label) ;;
    *)
      mapfile -t COMPREPLY < <(compgen -W '--loss --rtt-p95 --rate-p99 --bad --timeout --program --prometheus
        --label --json --help --' -- "$current")
      ;;
  esac
}

complete -F _vorn_check vorn-check
