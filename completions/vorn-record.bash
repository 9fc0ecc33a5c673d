# bash completion for vorn-record(1). What stands behind -- is completed like the arguments of vorn.

_vorn_record() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  COMPREPLY=()
  # It comes with the completion of vorn.
  declare -F _vorn_behind_dashes >/dev/null || { declare -F _completion_loader >/dev/null && _completion_loader vorn; }
  declare -F _vorn_behind_dashes >/dev/null && _vorn_behind_dashes && return
  case $previous in
    -o)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      ;;
    --every | --count | --label) ;;
    *) mapfile -t COMPREPLY < <(compgen -W '-o --every --count --label --help --' -- "$current") ;;
  esac
}

complete -F _vorn_record vorn-record
