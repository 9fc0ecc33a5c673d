# bash completion for vorn(8). Values are glued to their option letter: -d1000, -fresults.csv.

# Hosts the user has met: bash-completion knows them from known_hosts and /etc/hosts, bash from /etc/hosts alone.
_vorn_hosts() {
  if declare -F _known_hosts_real >/dev/null; then
    _known_hosts_real -a -- "$1"
  else
    mapfile -t COMPREPLY < <(compgen -A hostname -- "$1")
  fi
}

_vorn_files() {
  local file
  compopt -o filenames
  while IFS= read -r file; do
    if [[ -d $file ]]; then
      COMPREPLY+=("$file/")
    else
      COMPREPLY+=("$file")
    fi
  done < <(compgen -f -- "${1//\\/}")
  # Only a whole file name ends the word.
  [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == */ ]] && compopt -o nospace
}

_vorn_count_hosts() {
  local word count=0
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ $word == -* ]] || ((++count))
  done
  printf '%d' "$count"
}

_vorn() {
  local current=${COMP_WORDS[COMP_CWORD]}
  # made by completions/make
  local presets='--server --client --blast --discover --trace --lots --voice'
  local flags='-b -B -c -D -i -m -M -Q -s -t -U -v'
  local with_value='-a -A -d -E -f -F -l -n -q -r -R -S -T'
  local with_optional_value='-e -p -u'
  # end
  local letter=${current:0:2} value=${current:2}

  COMPREPLY=()
  case $current in
    --*) mapfile -t COMPREPLY < <(compgen -W "$presets" -- "$current") ;;
    -f*) _vorn_files "$value" ;;
    -R*) _vorn_hosts "$value" ;;
    -n*)
      mapfile -t COMPREPLY < <(compgen -W \
        "$(ip -4 -o address show 2>/dev/null | awk '{ sub("/.*", "", $4); print $4 }')" -- "$value")
      ;;
    -q*) mapfile -t COMPREPLY < <(compgen -W '0x08 0x18 0x20 0x28 0x30 0x88 0xa0 0xe0' -- "$value") ;;
    -)
      compopt -o nosort
      mapfile -t COMPREPLY < <(compgen -W "$flags $with_optional_value $with_value $presets")
      compopt -o nospace
      return
      ;;
    -?)
      # The letter stands; a blank may follow it only where no value can.
      [[ " $flags " == *" $current "* ]] && COMPREPLY=("$current")
      return
      ;;
    -*) ;;
    *)
      [[ $(_vorn_count_hosts) -lt 2 ]] && _vorn_hosts "$current"
      return
      ;;
  esac
  case $current in
    -[fRnq]*) COMPREPLY=("${COMPREPLY[@]/#/$letter}") ;;
  esac
}

# For the companions: completes a word behind -- as an argument of vorn. False for a word before it.
_vorn_behind_dashes() {
  local index
  for ((index = 1; index < COMP_CWORD; ++index)); do
    [[ ${COMP_WORDS[index]} == -- ]] || continue
    COMP_WORDS=(vorn "${COMP_WORDS[@]:index+1}")
    ((COMP_CWORD -= index))
    _vorn
    return 0
  done
  return 1
}

complete -F _vorn vorn
