# bash completion for vorn-plot(1), made by completions/make-companions

_vorn_plot() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  COMPREPLY=()
  case $previous in
    -o) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    -k) mapfile -t COMPREPLY < <(compgen -W 'rate trend histogram batches echo latency guaranteed cdf packets matrix' -- "$current"); return ;;
    --html) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    --csv) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    --by) mapfile -t COMPREPLY < <(compgen -W 'row tag host label run site' -- "$current"); return ;;
    --since) :; return ;;
    --until) :; return ;;
    --host) declare -F _known_hosts_real >/dev/null && _known_hosts_real -- "$current"; return ;;
    --label) :; return ;;
    --title) :; return ;;
  esac
  case $current in
    -*) mapfile -t COMPREPLY < <(compgen -W '--help -o -k --html --text --csv --by --since --until --host --label --title --version' -- "$current") ;;
    *) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
  esac
}

complete -F _vorn_plot vorn-plot
