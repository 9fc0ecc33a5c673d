# bash completion for vorn-line(1), made by completions/make-companions

_vorn_line() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  COMPREPLY=()
  case $previous in
    --loss) :; return ;;
    --min-rate) :; return ;;
    --max-delay) :; return ;;
    -o) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    --into) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    --label) :; return ;;
  esac
  case $current in
    -*) mapfile -t COMPREPLY < <(compgen -W '--help --down --up --quick --loss --min-rate --max-delay --json -o --into --label --version' -- "$current") ;;
    *) declare -F _known_hosts_real >/dev/null && _known_hosts_real -- "$current" ;;
  esac
}

complete -F _vorn_line vorn-line
