# bash completion for vorn-mesh(1), made by completions/make-companions

_vorn_mesh() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  COMPREPLY=()
  case $previous in
    -i) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    -o) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    --hosts) :; return ;;
    --label) :; return ;;
    --echo) :; return ;;
    --stream) :; return ;;
  esac
  case $current in
    -*) mapfile -t COMPREPLY < <(compgen -W '--help -i -o --hosts --label --echo --stream --version --' -- "$current") ;;
    *) COMPREPLY=() ;;
  esac
}

complete -F _vorn_mesh vorn-mesh
