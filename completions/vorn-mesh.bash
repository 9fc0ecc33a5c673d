# bash completion for vorn-mesh(1).

_vorn_mesh() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  COMPREPLY=()
  case $previous in
    -i | -o)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      ;;
    --hosts | --label | --echo | --stream) ;;
    *) mapfile -t COMPREPLY < <(compgen -W '-i -o --hosts --label --echo --stream --version --help --' -- "$current") ;;
  esac
}

complete -F _vorn_mesh vorn-mesh
