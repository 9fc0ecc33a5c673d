# bash completion for vorn-plot(1).

_vorn_plot() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  COMPREPLY=()
  case $previous in
    -k)
      mapfile -t COMPREPLY < <(compgen -W 'rate trend histogram batches echo latency guaranteed cdf matrix' \
        -- "$current")
      ;;
    --by) mapfile -t COMPREPLY < <(compgen -W 'row tag host label run site' -- "$current") ;;
    --since) mapfile -t COMPREPLY < <(compgen -W '1h 24h 7d 30d' -- "$current") ;;
    --host | --label | --title) ;;
    *)
      if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W '-o -k --text --html --by --since --host --label --title --help' -- "$current")
      else
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
      fi
      ;;
  esac
}

complete -F _vorn_plot vorn-plot
